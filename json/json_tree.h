/* cJSON's trees and texts, owned by scope. */
#pragma once
#include <cjson/cJSON.h>

#include <memory>

struct TreeDelete {
    void operator()(cJSON *tree) const { cJSON_Delete(tree); }
};
using JsonTree = std::unique_ptr<cJSON, TreeDelete>;

/* With cJSON's own function: the process may have given it another allocator. */
struct TextDelete {
    void operator()(char *text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, TextDelete>;
