/// Who may reach what, as tables: kinds of packets against the senders with the same rights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetGroup.h"

namespace tarnfw {

/// What happens to the packets of a cell.
enum class CellVerdict : std::uint8_t {
    kAllow,    ///< a rule or a default policy lets them through
    kDeny,     ///< they are dropped
    kNone,     ///< no rule matches, and there is no default policy: not dropped here
    kDepends,  ///< on what is not in the table, such as the destination address
};

/// Which packets of a cell are logged.
enum class CellLog : std::uint8_t { kNone, kSome, kAll };

struct MatrixCell {
    CellVerdict verdict = CellVerdict::kNone;
    CellLog log = CellLog::kNone;
    std::vector<FW::FWPLACE> deciders;  ///< in order, each once
    bool moreDeciders = false;          ///< there are more, before the last one
};

/// Packets of which every rule for the table's interfaces matches all or none, whatever else they
/// are.
struct MatrixRow {
    std::string text;               ///< "service ssh", "tcp 8080", "everything else"
    std::string ports;              ///< the same without the names of services: "tcp 22"
    std::vector<PacketKind> kinds;  ///< with kIcmpOfFamily for ICMP
    std::vector<MatrixCell> cells;  ///< one for each of Matrix::senders
};

/// Addresses with the same rights: the verdicts of a whole column, and what is logged.
struct MatrixSenders {
    std::string text;  ///< "10.0.0.0/8 except 10.3.0.0/16"
    FW::FWADDRESSES addresses;
};

/// New connections that come in through some interfaces, which all treat them alike, in one family.
struct Matrix {
    std::vector<std::string> adapters;    ///< the profile's names for them, sorted
    bool isOther = false;                 ///< all that no rule names are among them
    std::vector<std::string> interfaces;  ///< an example for each entry of the profile
    FW::FW_FAMILY family = FW::FW_FAMILY_V4;
    std::uint8_t chains = FW::FW_BOTH_CHAINS;  ///< mask of FW_CHAIN
    std::vector<MatrixSenders> senders;        ///< the fewest addresses first
    std::vector<MatrixRow> rows;               ///< services, then ports, then the rest
    std::size_t otherSenders = 0;              ///< groups of senders left out, the smallest ones
    std::size_t otherRows = 0;                 ///< rows left out, of ports: no more than this
    bool tooComplex = false;  ///< there is no table: it would take too long to make
};

/// How many columns there are for a person to read.
inline constexpr std::size_t kMostSenders = 60;

/// How many deciders of a cell are named.
inline constexpr std::size_t kMostDeciders = 20;

/// The tables of a profile: by adapter, then by family; one for both chains where they are the
/// same, and one for all adapters whose tables are the same but for the places of the deciders. The
/// lines of every profile are left out: packets of established connections, of neighbour discovery,
/// and of the machine to itself are always accepted.
std::vector<Matrix> matricesOf(const Meaning& meaning);

}  // namespace tarnfw
