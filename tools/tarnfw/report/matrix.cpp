#include "report/matrix.h"

#include <algorithm>
#include <iterator>
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

using Numbers = std::vector<std::uint32_t>;  // ascending

/// "No rule" as the number of a decider: the last one.
constexpr std::uint32_t kNoRule = UINT32_MAX;

/// A cell while it is made. Deciders have the numbers of Deciders.
struct Cell {
    CellVerdict verdict = CellVerdict::kNone;
    CellLog log = CellLog::kNone;
    Numbers deciders;
};

bool isAlike(const Cell& a, const Cell& b) {
    return a.verdict == b.verdict && a.log == b.log;
}

/// A table while it is made: cells by column, then by row.
struct Draft {
    Matrix matrix;
    std::vector<std::vector<Cell>> columns;
};

/// The places of resolved rules, by numbers in the order in which the packet filter tries them.
/// What one rule of the profile is resolved to has one number.
class Deciders {
public:
    explicit Deciders(const Rules& rules) {
        using Key = std::tuple<FW::FW_ORIGIN, std::string, std::int32_t>;
        std::map<Key, std::uint32_t> known;
        for (const FW::FWRESOLVEDRULE& rule : rules) {
            const FW::FWPLACE& place = rule.place;
            const auto [number, isNew] =
                known.try_emplace({place.origin, place.adapter, place.position},
                                  static_cast<std::uint32_t>(places_.size()));
            if (isNew) {
                places_.push_back(place);
            }
            numbers_.push_back(number->second);
        }
    }

    std::uint32_t numberOf(std::size_t rule) const { return numbers_[rule]; }

    FW::FWPLACE place(std::uint32_t number) const {
        return number == kNoRule ? FW::FWPLACE{} : places_[number];
    }

private:
    std::vector<FW::FWPLACE> places_;
    Numbers numbers_;  // by rule
};

void unite(Numbers& numbers, const Numbers& more) {
    if (numbers == more) {
        return;
    }
    Numbers all;
    std::set_union(numbers.begin(), numbers.end(), more.begin(), more.end(),
                   std::back_inserter(all));
    numbers = std::move(all);
}

/// Rules that new connections may meet, with their numbers as deciders.
struct TableRules {
    Rules rules;
    Numbers numbers;
};

Cell cellOf(const FW::FW_MEANING& answers, const Numbers& numbers, const FW::FWPACKET& packet) {
    Cell cell;
    std::set<CellVerdict> verdicts;
    std::set<bool> logs;
    for (const std::size_t number : answers.decide(packet).deciders) {
        const FW::FWRESOLVEDRULE rule = answers.rule(number);
        verdicts.insert(verdictOf(rule));
        logs.insert(rule.log);
        cell.deciders.push_back(number < numbers.size() ? numbers[number] : kNoRule);
    }
    std::sort(cell.deciders.begin(), cell.deciders.end());
    cell.deciders.erase(std::unique(cell.deciders.begin(), cell.deciders.end()),
                        cell.deciders.end());
    cell.verdict = verdicts.size() == 1 ? *verdicts.begin() : CellVerdict::kDepends;
    cell.log = logs.size() > 1         ? CellLog::kSome
               : logs.count(true) != 0 ? CellLog::kAll
                                       : CellLog::kNone;
    return cell;
}

bool areEqual(const FW::FWADDRESSES& a, const FW::FWADDRESSES& b) {
    const auto isSameNumber = [](const FW::FWADDRESS& x, const FW::FWADDRESS& y) {
        return x.high == y.high && x.low == y.low;
    };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](const auto& x, const auto& y) {
        return isSameNumber(x.first, y.first) && isSameNumber(x.last, y.last);
    });
}

/// That of a tunnel has none: its interface is named instead, alone.
bool hasName(const Draft& draft) {
    return draft.matrix.isOther || !draft.matrix.adapters.empty();
}

/// Whether two tables have the same rows and columns, and cells that are the same by `isSameCell`.
template <typename IsSameCell>
bool areSame(const Draft& a, const Draft& b, IsSameCell isSameCell) {
    const auto isSameColumn = [](const MatrixSenders& x, const MatrixSenders& y) {
        return areEqual(x.addresses, y.addresses);
    };
    const auto isSameRow = [](const MatrixRow& x, const MatrixRow& y) {
        return x.text == y.text && x.ports == y.ports;
    };
    const auto areSameCells = [&](const std::vector<Cell>& x, const std::vector<Cell>& y) {
        return std::equal(x.begin(), x.end(), y.begin(), y.end(), isSameCell);
    };
    const Matrix& x = a.matrix;
    const Matrix& y = b.matrix;
    return x.family == y.family && x.tooComplex == y.tooComplex &&
           x.otherSenders == y.otherSenders && x.otherRows == y.otherRows &&
           std::equal(x.senders.begin(), x.senders.end(), y.senders.begin(), y.senders.end(),
                      isSameColumn) &&
           std::equal(x.rows.begin(), x.rows.end(), y.rows.begin(), y.rows.end(), isSameRow) &&
           std::equal(a.columns.begin(), a.columns.end(), b.columns.begin(), b.columns.end(),
                      areSameCells);
}

class MatrixMaker {
public:
    explicit MatrixMaker(const Meaning& meaning)
        : meaning_(meaning),
          rules_(meaning.ownRules()),
          deciders_(rules_),
          words_({meaning}),
          senderWords_({meaning}, kMostNetworks) {}

    std::vector<Matrix> matrices() {
        std::vector<std::vector<Draft>> all;  // by group of adapters
        for (const InterfaceGroup& group : interfaceGroupsOf(meaning_, rules_)) {
            std::vector<Draft> drafts = draftsOf(group);
            const auto same = std::find_if(all.begin(), all.end(), [&](const auto& known) {
                return std::equal(known.begin(), known.end(), drafts.begin(), drafts.end(),
                                  [](const Draft& a, const Draft& b) {
                                      return hasName(a) && hasName(b) &&
                                             a.matrix.chains == b.matrix.chains &&
                                             areSame(a, b, isAlike);
                                  });
            });
            if (same == all.end()) {
                all.push_back(std::move(drafts));
            } else {
                for (std::size_t i = 0; i < drafts.size(); ++i) {
                    join((*same)[i], drafts[i]);
                }
            }
        }
        std::vector<Matrix> matrices;
        for (std::vector<Draft>& drafts : all) {
            for (Draft& draft : drafts) {
                matrices.push_back(finished(std::move(draft)));
            }
        }
        return matrices;
    }

private:
    std::vector<Draft> draftsOf(const InterfaceGroup& group) {
        std::vector<Draft> drafts;
        // Who looks for a service looks in both families.
        const std::set<std::string> services = servicesOf(
            rulesFor(group.examples.front(), FW::FW_BOTH_FAMILIES, FW::FW_BOTH_CHAINS).rules,
            meaning_.profile());
        for (const FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
            Draft input = draft(group, services, family, FW::FW_CHAIN_INPUT);
            Draft forward = draft(group, services, family, FW::FW_CHAIN_FORWARD);
            const bool isBoth = areSame(input, forward, [](const Cell& a, const Cell& b) {
                return isAlike(a, b) && a.deciders == b.deciders;
            });
            input.matrix.chains = isBoth ? FW::FW_BOTH_CHAINS : 1U << FW::FW_CHAIN_INPUT;
            drafts.push_back(std::move(input));
            if (!isBoth) {
                forward.matrix.chains = 1U << FW::FW_CHAIN_FORWARD;
                drafts.push_back(std::move(forward));
            }
        }
        return drafts;
    }

    /// Adds the interfaces and deciders of a table that is the same otherwise.
    static void join(Draft& draft, const Draft& more) {
        Matrix& matrix = draft.matrix;
        for (const std::string& adapter : more.matrix.adapters) {
            const auto at =
                std::lower_bound(matrix.adapters.begin(), matrix.adapters.end(), adapter);
            if (at == matrix.adapters.end() || *at != adapter) {
                matrix.adapters.insert(at, adapter);
            }
        }
        matrix.isOther = matrix.isOther || more.matrix.isOther;
        matrix.interfaces.insert(matrix.interfaces.end(), more.matrix.interfaces.begin(),
                                 more.matrix.interfaces.end());
        for (std::size_t i = 0; i < draft.columns.size(); ++i) {
            join(draft.columns[i], more.columns[i]);
        }
    }

    /// The table with its cells.
    Matrix finished(Draft draft) const {
        for (std::vector<Cell>& column : draft.columns) {
            for (std::size_t row = 0; row < column.size(); ++row) {
                const Numbers& deciders = column[row].deciders;
                MatrixCell cell;
                cell.verdict = column[row].verdict;
                cell.log = column[row].log;
                cell.moreDeciders = deciders.size() > kMostDeciders;
                for (std::size_t i = 0; i < deciders.size(); ++i) {
                    if (i + 1 < kMostDeciders || i + 1 == deciders.size()) {
                        cell.deciders.push_back(deciders_.place(deciders[i]));
                    }
                }
                draft.matrix.rows[row].cells.push_back(std::move(cell));
            }
            column.clear();
        }
        return std::move(draft.matrix);
    }

    /// The rules that new connections through these interfaces may meet.
    TableRules rulesFor(const std::string& in, unsigned families, unsigned chains) const {
        TableRules table;
        for (std::size_t i = 0; i < rules_.size(); ++i) {
            const FW::FWPACKETSET& packets = rules_[i].packets;
            if ((packets.chains & chains) != 0 && (packets.families & families) != 0 &&
                (packets.states & (1U << FW::FW_STATE_NEW)) != 0 &&
                (packets.in == nullptr || isAmong(*packets.in, in))) {
                table.rules.push_back(rules_[i]);
                table.numbers.push_back(deciders_.numberOf(i));
            }
        }
        return table;
    }

    Draft draft(const InterfaceGroup& group, const std::set<std::string>& services,
                FW_FAMILY family, FW_CHAIN chain) {
        Draft draft;
        Matrix& matrix = draft.matrix;
        matrix.adapters = group.adapters;
        matrix.isOther = group.isOther;
        matrix.interfaces = group.examples;
        matrix.family = family;
        const TableRules table = rulesFor(group.examples.front(), 1U << family, 1U << chain);
        const Rules& rules = table.rules;
        std::optional<std::vector<FW::FWADDRESSES>> senders = senderGroupsOf(rules);
        FW::FWPACKET packet;
        packet.chain = chain;
        packet.family = family;
        packet.in = group.examples.front();
        packet.state = FW::FW_STATE_NEW;
        const bool isPoint = fillUnread(rules, packet);
        auto [rows, otherRows] = rowsOf(rules, services, meaning_, family, words_);
        matrix.otherRows = otherRows;
        // One table may take a part of what is left, so that the later ones get theirs.
        const std::size_t column = rows.size() * (isPoint ? 1 : rules.size() + 1);
        const std::size_t groups =
            senders
                ? std::min({senders->size(), kMostSenderGroups, (kMostWork - work_) / 4 / column})
                : 0;
        if (groups == 0) {
            matrix.tooComplex = true;
            matrix.otherRows = 0;
            return draft;
        }
        work_ += groups * column;
        matrix.otherSenders = senders->size() - groups;
        senders->resize(groups);
        fill(draft, rows, *senders, table, packet);
        return draft;
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

    void fill(Draft& draft, std::vector<RowSeed>& rows, const std::vector<FW::FWADDRESSES>& senders,
              const TableRules& table, FW::FWPACKET packet) const {
        const FW::FW_MEANING answers(table.rules);
        // Columns with the same verdicts and logging are one.
        std::map<std::vector<std::pair<CellVerdict, CellLog>>, std::size_t> columns;
        for (const FW::FWADDRESSES& addresses : senders) {
            packet.source = addresses.front().first;
            std::vector<Cell> column;
            std::vector<std::pair<CellVerdict, CellLog>> verdicts;
            for (const RowSeed& seed : rows) {
                packet.protocol = static_cast<std::uint8_t>(seed.point.protocol);
                packet.sourcePort = seed.point.sourcePort;
                packet.destinationPort = seed.point.destinationPort;
                packet.icmpType = static_cast<std::uint8_t>(seed.point.icmpType);
                column.push_back(cellOf(answers, table.numbers, packet));
                verdicts.emplace_back(column.back().verdict, column.back().log);
            }
            const auto [place, isNew] = columns.try_emplace(verdicts, draft.columns.size());
            if (isNew) {
                draft.matrix.senders.push_back({"", addresses});
                draft.columns.push_back(std::move(column));
            } else {
                FW::FWADDRESSES& all = draft.matrix.senders[place->second].addresses;
                all.insert(all.end(), addresses.begin(), addresses.end());
                join(draft.columns[place->second], column);
            }
        }
        for (RowSeed& seed : rows) {
            draft.matrix.rows.push_back(std::move(seed.row));
        }
        order(draft);
    }

    /// Adds the deciders of a column to those of one with the same verdicts.
    static void join(std::vector<Cell>& column, const std::vector<Cell>& more) {
        for (std::size_t i = 0; i < column.size(); ++i) {
            unite(column[i].deciders, more[i].deciders);
        }
    }

    /// Names the columns and moves them to their places; leaves out the smallest of too many.
    void order(Draft& draft) const {
        Matrix& matrix = draft.matrix;
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
        std::vector<std::vector<Cell>> columns;
        for (const std::size_t from : sorted) {
            senders.push_back(std::move(matrix.senders[from]));
            senders.back().text = sendersText(senders.back().addresses, matrix.family);
            columns.push_back(std::move(draft.columns[from]));
        }
        matrix.senders = std::move(senders);
        draft.columns = std::move(columns);
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
    Deciders deciders_;
    PacketWords words_;
    PacketWords senderWords_;
    std::size_t work_ = 0;
};

}  // namespace

std::vector<Matrix> matricesOf(const Meaning& meaning) {
    return MatrixMaker(meaning).matrices();
}

}  // namespace tarnfw
