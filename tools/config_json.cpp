/* See config_json.h. cJSON reads the text, as it does for the library: its tolerance (any bytes, the same
 * key twice, a zero character) is made up for here, which is less than a second JSON library. */
#include "config_json.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace tamoctl {

namespace {

/* Line and column, counted from 1, of a place in a text. */
std::string placeOf(const std::string &text, size_t place) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(place, text.size()));
    const auto lines = std::count(text.begin(), end, '\n');
    const size_t lineBegin = lines == 0 ? 0 : text.rfind('\n', place - 1) + 1;
    return "line " + std::to_string(lines + 1) + ", column " +
           std::to_string(std::min(place, text.size()) - lineBegin + 1) + ": ";
}

/* What the JSON library would not notice; empty when all is well. */
std::string encodingProblem(const std::string &text) {
    bool inText = false;
    for (size_t at = 0, length = 1; at < text.size(); at += length) {
        const std::string_view rest = std::string_view(text).substr(at);
        length = characterLength(rest);
        if (length == 0) {
            return placeOf(text, at) + "not UTF-8: convert the file, for instance with iconv";
        }
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x20 && (inText || (byte != '\n' && byte != '\r' && byte != '\t'))) {
            return placeOf(text, at) + "a control character: JSON writes it as \\n, \\t or \\u00XX";
        }
        if (rest.starts_with("\\u0000")) {
            return placeOf(text, at) + "a zero character, which a value cannot hold";
        }
        if (byte == '"') {
            inText = !inText;
        } else if (byte == '\\' && rest.size() > 1) {
            length = 1 + std::max<size_t>(1, characterLength(rest.substr(1)));
        }
    }
    return "";
}

std::string atMost(const char *what, size_t size, size_t most) {
    return std::string("the ") + what + " has " + std::to_string(size) + " bytes, the limit is " +
           std::to_string(most);
}

/* `keys` holds those of the members before. */
std::string memberProblem(const cJSON *member, std::unordered_set<std::string_view> *keys) {
    if (!keys->insert(member->string).second) {
        return "duplicate key";
    }
    if (!cJSON_IsString(member)) {
        return "the value is not a text: put it in quotes";
    }
    return entryProblem(member->string, member->valuestring);
}

}  // namespace

std::string entryProblem(std::string_view key, std::string_view value) {
    constexpr size_t kMostOfKey = sizeof(ConfConfigOmKey::text) - 1;
    constexpr size_t kMostOfValue = sizeof(ConfConfigOmVal::text) - 1;
    if (key.empty()) {
        return "the key is empty";
    }
    if (key.size() > kMostOfKey) {
        return atMost("key", key.size(), kMostOfKey);
    }
    if (value.size() > kMostOfValue) {
        return atMost("value", value.size(), kMostOfValue);
    }
    return isUtf8(key) && isUtf8(value) ? "" : "not UTF-8, which JSON needs";
}

std::string readEntries(const std::string &text, ConfigEntries *entries) {
    std::string problem = encodingProblem(text);
    if (!problem.empty()) {
        return problem;
    }
    const char *end = nullptr;
    // With its terminator, so that nothing may follow the object.
    entries->json.reset(cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, &end, 1));
    if (entries->json == nullptr) {
        const size_t place = end == nullptr ? 0 : static_cast<size_t>(end - text.c_str());
        return placeOf(text, place) + "not valid JSON";
    }
    if (!cJSON_IsObject(entries->json.get())) {
        return "not an object of texts: {\"KEY\": \"VALUE\", ...} is wanted";
    }
    std::unordered_set<std::string_view> keys;
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, entries->json.get()) {
        const std::string wrong = memberProblem(member, &keys);
        if (!wrong.empty()) {
            return "entry " + std::to_string(entries->pairs.size() + 1) + ", '" +
                   std::string(member->string).substr(0, 40) + "': " + wrong;
        }
        entries->pairs.push_back({member->string, member->valuestring});
    }
    return "";
}

std::string quoted(const std::string &text) {
    const Json json(cJSON_CreateStringReference(text.c_str()));
    const std::unique_ptr<char, decltype(&cJSON_free)> printed(cJSON_PrintUnformatted(json.get()),
                                                               cJSON_free);
    if (printed == nullptr) {
        throw std::bad_alloc();
    }
    return printed.get();
}

}  // namespace tamoctl
