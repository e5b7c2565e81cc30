// Key/value files: a key that is set has its value, and all other lines are as before. An input is
// a key, a line feed, a value, a line feed, and the file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hostKeyValue.h"

#include "property.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::size_t differing(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        count += a[i] != b[i] ? 1 : 0;
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t first = input.find('\n');
    const std::size_t second = first == std::string::npos ? first : input.find('\n', first + 1);
    if (second == std::string::npos) {
        return 0;
    }
    const std::string key = input.substr(0, first);
    const std::string value = input.substr(first + 1, second - first - 1);
    const std::string file = input.substr(second + 1);

    host::KeyValueText text(file);
    (void)text.get(key);
    if (!host::KeyValueText::isKey(key) || !host::KeyValueText::isValue(value)) {
        return 0;
    }
    text.set(key, value);
    const std::string content = text.content();
    require(text.get(key) == value, "a key has the value that it was given", content);
    host::KeyValueText again(content);
    require(again.get(key) == value, "it has it in the file as well", content);
    require(again.content() == content, "a file that is read is the file", content);

    const std::vector<std::string> before = linesOf(file);
    const std::vector<std::string> after = linesOf(content);
    require(after.size() == before.size() || after.size() == before.size() + 1,
            "one line more at most", content);
    require(differing(before, after) <= (after.size() == before.size() ? 1U : 0U),
            "one line changes at most", content);
    return 0;
}
