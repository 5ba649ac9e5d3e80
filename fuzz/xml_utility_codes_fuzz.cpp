/* Attacks the decoder of character codes: ConfXmlGetStringFromAscii and ConfXmlStrGetNextASCII. An
 * input is the size of the destination and the list. */
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/scratch.h"
#include "include/conf_log_adapter.h"
#include "include/xml_utility.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    SetLogLevel(0);
    const std::string list(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::vector<char> decoded(data[0]);
    char none = '\0';
    const uint32_t result =
        ConfXmlGetStringFromAscii(list.c_str(), decoded.empty() ? &none : decoded.data(), data[0]);
    uint32_t pos = 0, before = 1, value = 0;
    const auto length = static_cast<uint32_t>(list.size());
    while (pos < length && pos != before) {
        before = pos;
        (void)ConfXmlStrGetNextASCII(list.data(), length, &pos, &value);
    }
    fuzz::require(result <= 1 && pos <= list.size() && none == '\0');
    return 0;
}
