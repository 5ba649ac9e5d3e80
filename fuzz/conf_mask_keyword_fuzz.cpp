/* Attacks the masks: ConfFilterStr, ConfFilterIPAddrStr, ConfFilterNonSecurityWordEx and
 * ConfReplaceIPAddrStr. The last two must do to the byte what their model does.
 *
 * An input is a key (or an address), a mark and a text, each ended by a NUL. */
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/scratch.h"
#include "include/conf_mask_keyword.h"
#include "platform/tamo_os_mem.h"

namespace {

using fuzz::require;
using std::string;

/* Masking as it is described, step by step and without a thought for its cost. */
namespace model {

void maskSpan(string &text, size_t begin, size_t end) {
    const size_t n = end > begin ? end - begin : 0;
    const size_t first = n >= 11 ? 3 : n >= 8 ? n - 6 : n >= 6 ? n - 5 : n - 2;
    const size_t last = n >= 6 ? n - 3 : n - 2;
    for (size_t i = first; n >= 4 && i <= last; i++) {
        text[begin + i] = '*';
    }
}

string maskValues(string text, const string &key, const string &endMark) {
    for (size_t found = text.find(key); found != string::npos;) {
        size_t value = found + key.size();
        const size_t lineEnd = text.find('\r', value);
        size_t end = text.find(endMark, value);
        end = key == "tel:" ? std::min(end, lineEnd) : end;
        if (end == string::npos) {
            break;
        }
        size_t next = end == value ? end + endMark.size() : end;
        if (lineEnd < end) {
            next = value;
        } else if (end > value) {
            const bool isList = key.find("-eid") != string::npos;
            const size_t limit = isList ? std::min(lineEnd, text.size()) : 0;
            for (size_t at; (at = text.find(';', value)) < limit; value = at + 1) {
                maskSpan(text, value, at);
            }
            maskSpan(text, value, end);
        }
        found = text.find(key, next);
    }
    return text;
}

/* After each address the whole rest is written, for the next one to be written over. */
string replaceAddress(const string &text, const string &address, const string &masked) {
    const auto capacity = static_cast<long>(text.size()) + 100;
    string output = text;
    string rest = text;
    string done;
    for (size_t at; (at = rest.find(address)) != string::npos;) {
        long room = capacity - static_cast<long>(done.size() + at);
        if (room < 2) {
            break;
        }
        output = done + rest.substr(0, at);
        room -= static_cast<long>(masked.size());
        if (room < 2) {
            break;
        }
        done = output += masked;
        rest = rest.substr(at + address.size());
        room -= static_cast<long>(rest.size());
        if (room < 2) {
            break;
        }
        output += rest;
    }
    return output;
}

}  // namespace model

/* The next text of the input; without what there is too much of. */
string takeText(const uint8_t *&data, size_t &size, size_t most) {
    const auto *begin = reinterpret_cast<const char *>(data);
    const size_t length = strnlen(begin, size);
    const size_t taken = length < size ? length + 1 : length;
    data += taken;
    size -= taken;
    return {begin, length < most ? length : most};
}

void maskValues(const string &text, const string &key, const string &endMark) {
    std::vector<char> place(text.c_str(), text.c_str() + text.size() + 1);
    ConfFilterNonSecurityWordEx(place.data(), key.c_str(), endMark.c_str());
    require(key.empty() || model::maskValues(text, key, endMark) == place.data());
}

/* The masked form of a text; no byte of it may be left behind the form. */
string mask(decltype(&ConfFilterStr) filter, const string &text) {
    char place[200];
    memset(place, 'x', sizeof(place));
    require(filter(text.c_str(), place, sizeof(place)) == 0);
    const string form = place;
    require(string(place, sizeof(place)) == form + string(sizeof(place) - form.size(), '\0'));
    return form;
}

void replaceAddress(const string &text, const string &address) {
    char *out = nullptr;
    uint32_t length = 0;
    ConfFilterSetIPStr(address.c_str());
    if (ConfReplaceIPAddrStr(text.c_str(), &out, &length) == 0) {
        const string form = mask(ConfFilterIPAddrStr, address);
        require(string(out, length) == model::replaceAddress(text, address, form));
        require(out[length] == '\0');
        OSMemTypeFreeMon(out, 0, 0, __LINE__, "fuzz");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const string root = fuzz::scratchRoot();
    const string key = takeText(data, size, 44);
    const string endMark = takeText(data, size, 1000);
    const string text = takeText(data, size, 100000);
    mask(ConfFilterStr, text);
    mask(ConfFilterIPAddrStr, text);
    maskValues(text, key, endMark);
    replaceAddress(text, key);
    return 0;
}
