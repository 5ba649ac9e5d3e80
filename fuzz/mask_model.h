/* Masking as it is described, step by step and without a thought for its cost. */
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

inline string maskValues(string text, const string &key, const string &endMark) {
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
inline string replaceAddress(const string &text, const string &address, const string &masked) {
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
