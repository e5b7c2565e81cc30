#include "report/matrix.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "tarnfirewall/fwTypes.h"

#include "report/interfaceGroups.h"
#include "report/matrixRows.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/packetWords.h"

namespace tarnfw {
namespace {

using FW::FW_CHAIN;
using FW::FW_FAMILY;
using Rules = std::vector<FW::FWRESOLVEDRULE>;

/// Senders that are told apart before those with the same rights are put together.
constexpr std::size_t kMostSenderGroups = 300;

/// Of a heading: of more, nobody reads all.
constexpr std::size_t kMostNetworks = 4;

/// What all tables of a profile together may cost, in rules looked at.
constexpr std::size_t kMostWork = 100000000;

// ---- Columns: senders that every rule matches or does not ---------------------------------------

bool less(const FW::FWADDRESS& a, const FW::FWADDRESS& b) {
    return std::tie(a.high, a.low) < std::tie(b.high, b.low);
}

bool isLast(const FW::FWADDRESS& address) {
    return address.high == ~0ULL && address.low == ~0ULL;
}

FW::FWADDRESS next(FW::FWADDRESS address) {
    if (++address.low == 0) {
        ++address.high;
    }
    return address;
}

FW::FWADDRESS before(FW::FWADDRESS address) {
    if (address.low-- == 0) {
        --address.high;
    }
    return address;
}

/// How many addresses, to compare; 2^128 is one.
long double sizeOf(const FW::FWADDRESSES& addresses) {
    constexpr long double kHalf = 18446744073709551616.0L;  // 2^64
    long double size = 0;
    for (const FW::FWADDRESSINTERVAL& one : addresses) {
        const auto high = static_cast<long double>(one.last.high - one.first.high);
        const auto low =
            static_cast<long double>(one.last.low) - static_cast<long double>(one.first.low) + 1;
        size += (high + low / kHalf) / kHalf;
    }
    return size;
}

/// The addresses of a family in groups of those that the same lists of the rules have, the largest
/// first. Nothing where that is too complex.
std::optional<std::vector<FW::FWADDRESSES>> senderGroupsOf(const Rules& rules) {
    struct Edge {
        FW::FWADDRESS at;
        std::size_t list;
        bool begins;
    };
    std::vector<Edge> edges;
    std::set<const FW::FWADDRESSES*> seen;
    for (const FW::FWRESOLVEDRULE& rule : rules) {
        if (rule.packets.sources == nullptr || !seen.insert(rule.packets.sources.get()).second) {
            continue;
        }
        for (const FW::FWADDRESSINTERVAL& one : *rule.packets.sources) {
            edges.push_back({one.first, seen.size(), true});
            if (!isLast(one.last)) {
                edges.push_back({next(one.last), seen.size(), false});
            }
        }
    }
    std::sort(edges.begin(), edges.end(),
              [](const Edge& a, const Edge& b) { return less(a.at, b.at); });
    std::map<std::set<std::size_t>, FW::FWADDRESSES> groups;
    std::set<std::size_t> lists;
    FW::FWADDRESS start;
    std::size_t work = 0;
    for (std::size_t i = 0; i <= edges.size(); ++i) {
        const bool isEnd = i == edges.size();
        if (isEnd || less(start, edges[i].at)) {
            work += lists.size() + 1;
            if (work > kMostWork) {
                return std::nullopt;
            }
            groups[lists].push_back(
                {start, isEnd ? FW::FWADDRESS{~0ULL, ~0ULL} : before(edges[i].at)});
        }
        if (!isEnd) {
            start = edges[i].at;
            if (edges[i].begins) {
                lists.insert(edges[i].list);
            } else {
                lists.erase(edges[i].list);
            }
        }
    }
    std::vector<FW::FWADDRESSES> all;
    all.reserve(groups.size());
    for (auto& [members, addresses] : groups) {
        all.push_back(FW::fwAddressesFrom(addresses));
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return sizeOf(a) > sizeOf(b); });
    return all;
}

// ---- Cells --------------------------------------------------------------------------------------

CellVerdict verdictOf(const FW::FWRESOLVEDRULE& rule) {
    if (rule.verdict == FW::FW_PACKET_DROP) {
        return CellVerdict::kDeny;
    }
    return rule.place.origin == FW::FW_ORIGIN_END ? CellVerdict::kNone : CellVerdict::kAllow;
}

MatrixCell cellOf(const FW::FW_MEANING& answers, const FW::FWPACKET& packet) {
    MatrixCell cell;
    std::set<CellVerdict> verdicts;
    std::set<bool> logs;
    for (const std::size_t number : answers.decide(packet).deciders) {
        const FW::FWRESOLVEDRULE rule = answers.rule(number);
        verdicts.insert(verdictOf(rule));
        logs.insert(rule.log);
        if (cell.deciders.empty() || !isSame(cell.deciders.back(), rule.place)) {
            cell.deciders.push_back(rule.place);
        }
    }
    cell.verdict = verdicts.size() == 1 ? *verdicts.begin() : CellVerdict::kDepends;
    cell.log = logs.size() > 1         ? CellLog::kSome
               : logs.count(true) != 0 ? CellLog::kAll
                                       : CellLog::kNone;
    return cell;
}

class MatrixMaker {
public:
    explicit MatrixMaker(const Meaning& meaning)
        : meaning_(meaning),
          rules_(meaning.ownRules()),
          words_({meaning}),
          senderWords_({meaning}, kMostNetworks) {}

    std::vector<Matrix> matrices() {
        std::vector<Matrix> all;
        for (const InterfaceGroup& group : interfaceGroupsOf(meaning_, rules_)) {
            for (const FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
                Matrix input = matrix(group, family, FW::FW_CHAIN_INPUT);
                Matrix forward = matrix(group, family, FW::FW_CHAIN_FORWARD);
                const bool isSame = areSame(input, forward);
                input.chains = isSame ? FW::FW_BOTH_CHAINS : 1U << FW::FW_CHAIN_INPUT;
                all.push_back(std::move(input));
                if (!isSame) {
                    forward.chains = 1U << FW::FW_CHAIN_FORWARD;
                    all.push_back(std::move(forward));
                }
            }
        }
        return all;
    }

private:
    static bool areSame(const Matrix& a, const Matrix& b) {
        const auto sameCells = [](const MatrixCell& one, const MatrixCell& other) {
            return one.verdict == other.verdict && one.log == other.log &&
                   std::equal(one.deciders.begin(), one.deciders.end(), other.deciders.begin(),
                              other.deciders.end(), isSame);
        };
        return a.tooComplex == b.tooComplex &&
               std::equal(a.senders.begin(), a.senders.end(), b.senders.begin(), b.senders.end(),
                          [](const auto& one, const auto& other) {
                              return std::equal(one.addresses.begin(), one.addresses.end(),
                                                other.addresses.begin(), other.addresses.end(),
                                                [](const auto& x, const auto& y) {
                                                    return !less(x.first, y.first) &&
                                                           !less(y.first, x.first) &&
                                                           !less(x.last, y.last) &&
                                                           !less(y.last, x.last);
                                                });
                          }) &&
               std::equal(a.rows.begin(), a.rows.end(), b.rows.begin(), b.rows.end(),
                          [&](const MatrixRow& one, const MatrixRow& other) {
                              return one.text == other.text && one.ports == other.ports &&
                                     std::equal(one.cells.begin(), one.cells.end(),
                                                other.cells.begin(), other.cells.end(), sameCells);
                          });
    }

    /// The rules that new connections through these interfaces may meet.
    Rules rulesFor(const std::string& in, FW_FAMILY family, FW_CHAIN chain) const {
        Rules rules;
        for (const FW::FWRESOLVEDRULE& rule : rules_) {
            const FW::FWPACKETSET& packets = rule.packets;
            if ((packets.chains & (1U << chain)) != 0 && (packets.families & (1U << family)) != 0 &&
                (packets.states & (1U << FW::FW_STATE_NEW)) != 0 &&
                (packets.in == nullptr || isAmong(*packets.in, in))) {
                rules.push_back(rule);
            }
        }
        return rules;
    }

    Matrix matrix(const InterfaceGroup& group, FW_FAMILY family, FW_CHAIN chain) {
        Matrix matrix;
        matrix.adapters = group.adapters;
        matrix.isOther = group.isOther;
        matrix.interfaces = group.examples;
        matrix.family = family;
        const Rules rules = rulesFor(group.examples.front(), family, chain);
        std::optional<std::vector<FW::FWADDRESSES>> senders = senderGroupsOf(rules);
        FW::FWPACKET packet;
        packet.chain = chain;
        packet.family = family;
        packet.in = group.examples.front();
        packet.state = FW::FW_STATE_NEW;
        const bool isPoint = fillUnread(rules, packet);
        auto [rows, otherRows] = rowsOf(rules, meaning_, family, words_);
        matrix.otherRows = otherRows;
        // One table may take a part of what is left, so that the later ones get theirs.
        const std::size_t column = rows.size() * (isPoint ? 1 : rules.size() + 1);
        const std::size_t groups =
            senders
                ? std::min({senders->size(), kMostSenderGroups, (kMostWork - work_) / 4 / column})
                : 0;
        if (groups == 0) {
            matrix.tooComplex = true;
            return matrix;
        }
        work_ += groups * column;
        matrix.otherSenders = senders->size() - groups;
        senders->resize(groups);
        fill(matrix, rows, *senders, FW::FW_MEANING(rules), packet);
        return matrix;
    }

    /// Gives a value to what no rule looks at, so that a single one is found for a packet. Whether
    /// all is known then.
    static bool fillUnread(const Rules& rules, FW::FWPACKET& packet) {
        const auto anyRule = [&rules](const auto& field) {
            return std::any_of(rules.begin(), rules.end(), [&](const FW::FWRESOLVEDRULE& rule) {
                return rule.packets.*field != nullptr;
            });
        };
        if (!anyRule(&FW::FWPACKETSET::destinations)) {
            packet.destination = FW::FWADDRESS{};
        }
        if (packet.chain == FW::FW_CHAIN_INPUT || !anyRule(&FW::FWPACKETSET::out)) {
            packet.out = packet.in;
        }
        return packet.destination && packet.out;
    }

    void fill(Matrix& matrix, std::vector<RowSeed>& rows,
              const std::vector<FW::FWADDRESSES>& senders, const FW::FW_MEANING& answers,
              FW::FWPACKET packet) const {
        // Columns with the same verdicts and logging are one.
        std::map<std::vector<std::pair<CellVerdict, CellLog>>, std::size_t> columns;
        std::vector<std::vector<MatrixCell>> cells;
        for (const FW::FWADDRESSES& addresses : senders) {
            packet.source = addresses.front().first;
            std::vector<MatrixCell> column;
            std::vector<std::pair<CellVerdict, CellLog>> verdicts;
            for (const RowSeed& seed : rows) {
                packet.protocol = static_cast<std::uint8_t>(seed.point.protocol);
                packet.sourcePort = seed.point.sourcePort;
                packet.destinationPort = seed.point.destinationPort;
                packet.icmpType = static_cast<std::uint8_t>(seed.point.icmpType);
                column.push_back(cellOf(answers, packet));
                verdicts.emplace_back(column.back().verdict, column.back().log);
            }
            const auto [place, isNew] = columns.try_emplace(verdicts, cells.size());
            if (isNew) {
                matrix.senders.push_back({"", addresses});
                cells.push_back(std::move(column));
            } else {
                FW::FWADDRESSES& all = matrix.senders[place->second].addresses;
                all.insert(all.end(), addresses.begin(), addresses.end());
                join(cells[place->second], column);
            }
        }
        for (RowSeed& seed : rows) {
            matrix.rows.push_back(std::move(seed.row));
        }
        order(matrix, cells);
    }

    /// Adds the deciders of a column to those of one with the same verdicts.
    static void join(std::vector<MatrixCell>& column, const std::vector<MatrixCell>& more) {
        for (std::size_t i = 0; i < column.size(); ++i) {
            for (const FW::FWPLACE& place : more[i].deciders) {
                if (std::none_of(column[i].deciders.begin(), column[i].deciders.end(),
                                 [&](const FW::FWPLACE& known) { return isSame(known, place); })) {
                    column[i].deciders.push_back(place);
                }
            }
        }
    }

    /// Names the columns and moves them to their places; leaves out the smallest of too many.
    void order(Matrix& matrix, std::vector<std::vector<MatrixCell>>& cells) const {
        std::vector<std::size_t> sorted;
        for (std::size_t i = 0; i < matrix.senders.size(); ++i) {
            matrix.senders[i].addresses = FW::fwAddressesFrom(matrix.senders[i].addresses);
            sorted.push_back(i);
        }
        std::stable_sort(sorted.begin(), sorted.end(), [&](std::size_t a, std::size_t b) {
            return sizeOf(matrix.senders[a].addresses) < sizeOf(matrix.senders[b].addresses);
        });
        if (sorted.size() > kMostSenders) {
            const std::size_t others = sorted.size() - kMostSenders;
            matrix.otherSenders += others;
            sorted.erase(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(others));
        }
        std::vector<MatrixSenders> senders;
        for (const std::size_t from : sorted) {
            senders.push_back(std::move(matrix.senders[from]));
            senders.back().text = sendersText(senders.back().addresses, matrix.family);
            for (std::size_t row = 0; row < matrix.rows.size(); ++row) {
                MatrixCell& cell = cells[from][row];
                std::sort(cell.deciders.begin(), cell.deciders.end(),
                          [&](auto& a, auto& b) { return orderOf(a) < orderOf(b); });
                matrix.rows[row].cells.push_back(std::move(cell));
            }
        }
        matrix.senders = std::move(senders);
    }

    /// As the packet filter tries them.
    static std::tuple<bool, bool, std::string, bool, std::int32_t> orderOf(
        const FW::FWPLACE& place) {
        return {place.origin == FW::FW_ORIGIN_END, place.adapter != FW::FW_ADAPTER_GLOBAL,
                place.adapter, place.origin == FW::FW_ORIGIN_DEFAULT, place.position};
    }

    /// The family is known from the table.
    std::string sendersText(const FW::FWADDRESSES& addresses, FW_FAMILY family) const {
        FamilyAddresses both;
        (family == FW::FW_FAMILY_V6 ? both.v6 : both.v4) = addresses;
        std::string text = senderWords_.sendersText(both);
        const std::string note = family == FW::FW_FAMILY_V6 ? " (IPv6)" : " (IPv4)";
        for (std::size_t at = text.find(note); at != std::string::npos; at = text.find(note, at)) {
            text.erase(at, note.size());
        }
        return text;
    }

    const Meaning& meaning_;
    Rules rules_;
    PacketWords words_;
    PacketWords senderWords_;
    std::size_t work_ = 0;
};

}  // namespace

std::vector<Matrix> matricesOf(const Meaning& meaning) {
    return MatrixMaker(meaning).matrices();
}

}  // namespace tarnfw
