#include "interfaceNumbers.h"

#include <algorithm>
#include <map>
#include <utility>

namespace FW {
namespace {

bool isBeginning(const std::string& entry) {
    return !entry.empty() && entry.back() == '+';
}

/// What the names of an entry begin with.
std::string startOf(const std::string& entry) {
    return isBeginning(entry) ? entry.substr(0, entry.size() - 1) : entry;
}

/// A beginning comes before the name that consists of it alone.
bool comesBefore(const std::string& a, const std::string& b) {
    const int order = startOf(a).compare(startOf(b));
    return order != 0 ? order < 0 : isBeginning(a) && !isBeginning(b);
}

bool fits(const std::string& entry, const std::string& name) {
    return isBeginning(entry) ? name.compare(0, entry.size() - 1, entry, 0, entry.size() - 1) == 0
                              : entry == name;
}

}  // namespace

InterfaceNumbers::InterfaceNumbers(std::vector<std::string> entries)
    : entries_(std::move(entries)) {
    std::sort(entries_.begin(), entries_.end(), comesBefore);
    entries_.erase(std::unique(entries_.begin(), entries_.end()), entries_.end());
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        std::size_t end = i + 1;
        while (isBeginning(entries_[i]) && end < entries_.size() &&
               fits(entries_[i], startOf(entries_[end]))) {
            ++end;
        }
        ends_.push_back(end);
    }
}

std::size_t InterfaceNumbers::indexOf(const std::string& entry) const {
    return static_cast<std::size_t>(
        std::lower_bound(entries_.begin(), entries_.end(), entry, comesBefore) - entries_.begin());
}

bool InterfaceNumbers::hasAll(const FWINTERFACES& interfaces) const {
    const auto has = [this](const std::string& entry) {
        return std::binary_search(entries_.begin(), entries_.end(), entry, comesBefore);
    };
    return std::all_of(interfaces.names.begin(), interfaces.names.end(), has) &&
           std::all_of(interfaces.except.begin(), interfaces.except.end(), has);
}

Number InterfaceNumbers::numberOf(const std::string& name) const {
    // Of the entries that fit, the last one is the longest.
    std::size_t index = indexOf(name);
    if (index == entries_.size() || entries_[index] != name) {
        --index;  // at least "+" comes before every name
    }
    while (!fits(entries_[index], name)) {
        --index;
    }
    return index;
}

Intervals InterfaceNumbers::numbersOf(const FWINTERFACES& interfaces) const {
    std::map<std::size_t, bool> included;  // by entry, in their order: shorter ones first
    for (const std::string& entry : interfaces.except) {
        included[indexOf(entry)] = false;
    }
    for (const std::string& entry : interfaces.names) {
        included[indexOf(entry)] = true;
    }
    Intervals numbers;
    for (const auto& [index, isIn] : included) {
        const Intervals entry = {{index, ends_[index] - 1}};
        numbers = isIn ? united(numbers, entry) : without(numbers, entry);
    }
    return numbers;
}

FWINTERFACES InterfaceNumbers::interfacesOf(IntervalView numbers) const {
    // Each entry whose membership differs from that of the next shorter one.
    FWINTERFACES interfaces;
    std::vector<std::pair<std::size_t, bool>> enclosing;  // their ends, and whether they are in
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        while (!enclosing.empty() && enclosing.back().first <= i) {
            enclosing.pop_back();
        }
        const bool isIn = contains(numbers, i);
        if (isIn != (!enclosing.empty() && enclosing.back().second)) {
            (isIn ? interfaces.names : interfaces.except).push_back(entries_[i]);
        }
        enclosing.emplace_back(ends_[i], isIn);
    }
    return interfaces;
}

std::string InterfaceNumbers::exampleOf(Number number) const {
    const std::string& entry = entries_[static_cast<std::size_t>(number)];
    if (!isBeginning(entry)) {
        return entry;
    }
    std::string name = startOf(entry);
    for (int i = 0; name.empty() || numberOf(name) != number; ++i) {
        name = startOf(entry) + (entry == kEveryName ? "any" : "") + std::to_string(i);
    }
    return name;
}

}  // namespace FW
