/* A whole configuration store as JSON text: one object with a text for each key. */
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "output.h"
#include "tamo_host.h"

namespace tamoctl {

struct ConfigEntries {
    Json json; /* what the pairs point into */
    std::vector<TamoHostConfigPair> pairs;
};

/* Reads the entries of a text. The result is empty when all of it is good; else it is what is wrong,
 * with the place or the entry, and what to do about it. The JSON library alone would take more:
 * texts that end early at a zero, other encodings, line ends within texts, a key that comes twice. */
std::string readEntries(const std::string &text, ConfigEntries *entries);

/* What keeps a key and its value out of a store, or out of JSON; empty when nothing does. */
std::string entryProblem(std::string_view key, std::string_view value);

/* The text with its quotes. */
std::string quoted(const std::string &text);

}  // namespace tamoctl
