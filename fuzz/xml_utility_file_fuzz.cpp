/* Attacks ConfXmlLoad with a fixed index table: the input is the file. Fields lie in blocks of their
 * own for the sanitizer. */
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fuzz/scratch.h"
#include "include/conf_log_adapter.h"
#include "include/xml_utility.h"

namespace {

constexpr char kFile[] = "/data/fuzz.xml";
constexpr uint16_t kTextSize = 8;
constexpr uint16_t kInstances = 3;
constexpr struct {
    const char *type;
    size_t size;
} kTypes[] = {{"UINT8", 1},  {"INT8", 1},  {"UINT16", 2},      {"INT16", 2},
              {"UINT32", 4}, {"INT32", 4}, {"CHAR", kTextSize}};
constexpr size_t kTypeCount = sizeof(kTypes) / sizeof(kTypes[0]);

std::unique_ptr<char[]> fields[kInstances][kTypeCount];

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    ConfXmlNode *array = ConfXmlAddMultiInstanceNode(root, "a", kInstances);
    for (uint16_t at = 0; at < kInstances; at++) {
        ConfXmlNode *instance = ConfXmlAddMultiStructNode(array, "i", at);
        for (size_t type = 0; type < kTypeCount; type++) {
            char address[24];
            snprintf(address, sizeof(address), "%" PRIuPTR,
                     reinterpret_cast<uintptr_t>(fields[at][type].get()));
            const ConfXmlValueNodeDesc desc = {kTypes[type].type, kTypes[type].type};
            ConfXmlValue value = {CONF_XML_ATTR_CHAR, {}, kTextSize};
            value.value.text = address;
            ConfXmlAddSingleValueNode(instance, &desc, &value);
        }
    }
    return root;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string root = fuzz::scratchRoot();
    SetLogLevel(0);
    for (auto &instance : fields) {
        for (size_t type = 0; type < kTypeCount; type++) {
            instance[type] = std::make_unique<char[]>(kTypes[type].size);
        }
    }
    fuzz::writeFile(root + kFile, data, size);
    const uint32_t result = ConfXmlLoad(describe, kFile, kFile);
    for (const auto &instance : fields) {
        const char *text = instance[kTypeCount - 1].get();
        fuzz::require(result <= 1 && memchr(text, '\0', kTextSize) != nullptr);
    }
    return 0;
}
