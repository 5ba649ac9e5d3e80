/* Attacks the masks: ConfFilterStr, ConfFilterIPAddrStr, ConfFilterNonSecurityWordEx and
 * ConfReplaceIPAddrStr. The last two must do to the byte what their model does.
 *
 * An input is a key (or an address), a mark and a text, each ended by a NUL. */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/mask_model.h"
#include "fuzz/scratch.h"
#include "include/conf_mask_keyword.h"
#include "platform/tamo_os_mem.h"

namespace {

using std::string;

void require(bool good) {
    if (!good) {
        abort();
    }
}

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
