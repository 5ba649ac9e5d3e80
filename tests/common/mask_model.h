/* Masking as it is described, step by step and without a thought for its cost. The operations must
 * give the same to the byte. */
#pragma once
#include <algorithm>
#include <string>

namespace model {

using std::string;

inline void maskSpan(string &text, size_t begin, size_t end) {
    const size_t n = end > begin ? end - begin : 0;
    const size_t first = n >= 11 ? 3 : n >= 8 ? n - 6 : n >= 6 ? n - 5 : n - 2;
    const size_t last = n >= 6 ? n - 3 : n - 2;
    for (size_t i = first; n >= 4 && i <= last; i++) {
        text[begin + i] = '*';
    }
}

inline void maskList(string &text, size_t begin, size_t end, size_t lineEnd) {
    for (size_t at; (at = text.find(';', begin)) < lineEnd; begin = at + 1) {
        maskSpan(text, begin, at);
    }
    maskSpan(text, begin, end);
}

inline string maskValues(string text, const string &key, const string &endMark) {
    size_t found = text.find(key);
    while (found != string::npos) {
        const size_t value = found + key.size();
        const size_t lineEnd = text.find('\r', value);
        size_t end = text.find(endMark, value);
        if (key == "tel:") {
            end = std::min(end, lineEnd);
        }
        if (end == string::npos) {
            break;
        }
        size_t next = end;
        if (lineEnd < end) {
            next = value;
        } else if (end == value) {
            next = end + endMark.size();
        } else if (key.find("-eid") != string::npos) {
            maskList(text, value, end, std::min(lineEnd, text.size()));
        } else {
            maskSpan(text, value, end);
        }
        found = text.find(key, next);
    }
    return text;
}

/* After each address the whole rest is written, for the next one to be written over. */
inline string replaceAddress(const string &text, const string &address, const string &masked) {
    const auto capacity = static_cast<long>(text.size()) + 100;
    string output;
    string rest = text;
    size_t written = 0;
    for (size_t at; (at = rest.find(address)) != string::npos;) {
        long room = capacity - static_cast<long>(written) - static_cast<long>(at);
        if (room < 2) {
            break;
        }
        output = output.substr(0, written) + rest.substr(0, at);
        room -= static_cast<long>(masked.size());
        if (room < 2) {
            break;
        }
        output += masked;
        written = output.size();
        rest = rest.substr(at + address.size());
        if (room - static_cast<long>(rest.size()) < 2) {
            break;
        }
        output += rest;
    }
    return output.empty() ? text : output;
}

}  // namespace model
