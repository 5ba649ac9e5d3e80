/* tamoctl get, set and list: the configuration service's keys and values. */
#include <cstdio>
#include <cstring>

#include "output.h"
#include "tamo_host.h"
#include "tamo_om_config_client.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

/* A shell pattern that matches the text and nothing else. */
std::string literalPattern(const char *text) {
    std::string pattern;
    for (; *text != 0; ++text) {
        if (strchr("*?[", *text) != nullptr) {
            pattern += {'[', *text, ']'};
        } else {
            pattern += *text;
        }
    }
    return pattern;
}

uint32_t noteFound(const char *, const char *, void *found) {
    *static_cast<bool *>(found) = true;
    return 0;
}

/* Whether the service has a value for the key. */
bool isStored(const Command &command, const char *key) {
    bool found = false;
    uint32_t result = TamoHostConfigList(literalPattern(key).c_str(), noteFound, &found);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the configuration store", result);
    }
    return found;
}

void setKey(const Command &command, ConfConfigOmRecord *record, const char *key) {
    if (key[0] == 0 || strlen(key) >= sizeof(record->key.text)) {
        failUsage(command, "a key has 1 to %zu characters, '%.40s' has %zu",
                  sizeof(record->key.text) - 1, key, strlen(key));
    }
    TamoOmConfigcopyStr2Key(record, key);
}

/* Reads all keys as of one moment. `missing` gets the keys without a value. */
std::vector<ConfConfigOmRecord> readKeys(const Command &command, std::span<char *> keys,
                                         std::vector<bool> *missing) {
    std::vector<ConfConfigOmRecord> records(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        setKey(command, &records[i], keys[i]);
    }
    missing->assign(keys.size(), !requireStore(command));
    if (!keys.empty() && missing->front()) {
        return records;
    }
    if (TamoOmConfigStringMget(records.data(), static_cast<uint32_t>(records.size())) == 0) {
        return records;
    }
    for (size_t i = 0; i < keys.size(); ++i) {
        (*missing)[i] = records[i].value.length == 0 && !isStored(command, keys[i]);
    }
    return records;
}

int runGet(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {kJsonOption});
    const bool asJson = line.readJson();
    std::span<char *> keys = line.operands();
    if (keys.empty()) {
        failUsage(command, "a key is missing");
    }
    requireRoot(command);

    std::vector<bool> missing;
    std::vector<ConfConfigOmRecord> records = readKeys(command, keys, &missing);
    Json json(cJSON_CreateObject());
    const char *firstMissing = nullptr;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (missing[i]) {
            firstMissing = firstMissing != nullptr ? firstMissing : keys[i];
        } else if (asJson) {
            addText(json.get(), keys[i], records[i].value.text);
        } else {
            printValue(records[i].value.text);
        }
    }
    if (asJson) {
        printJson(json);
    }
    if (firstMissing != nullptr) {
        fail(command, "no value for '%s': 'tamoctl list' shows the keys that have one",
             firstMissing);
    }
    return kSuccess;
}

int runSet(const Command &command, int argc, char **argv) {
    // Options end at the first key, so that a value may begin with '-'.
    CommandLine line(command, argc, argv, "+", {});
    while (line.next() != -1) {
    }
    std::span<char *> words = line.operands();
    if (words.empty() || words.size() % 2 != 0) {
        failUsage(command, "keys and values come in pairs");
    }

    std::vector<ConfConfigOmRecord> records(words.size() / 2);
    for (size_t i = 0; i < records.size(); ++i) {
        const char *value = words[2 * i + 1];
        setKey(command, &records[i], words[2 * i]);
        if (strlen(value) >= sizeof(records[i].value.text)) {
            failUsage(command, "the value of '%s' has %zu characters, %zu are the most",
                      words[2 * i], strlen(value), sizeof(records[i].value.text) - 1);
        }
        TamoOmConfigcopyStr2Val(&records[i].value, value);
    }
    requireRoot(command, Access::change);
    int32_t result = TamoOmConfigStringMset(records.data(), static_cast<uint32_t>(records.size()));
    if (result != 0) {
        failHost(command, "nothing was stored", static_cast<uint32_t>(result));
    }
    return kSuccess;
}

uint32_t addRow(const char *key, const char *value, void *table) {
    static_cast<Table *>(table)->add({key, value});
    return 0;
}

uint32_t addMember(const char *key, const char *value, void *object) {
    addText(static_cast<cJSON *>(object), key, value);
    return 0;
}

int runList(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {kJsonOption});
    const bool asJson = line.readJson();
    if (line.operands().size() > 1) {
        failUsage(command, "one pattern at most: quote it against the shell");
    }
    const char *glob = line.operands().empty() ? nullptr : line.operands()[0];
    requireRoot(command);

    Table table({{"KEY", false}, {"VALUE", false}});
    Json json(cJSON_CreateObject());
    uint32_t result = TAMO_HOST_OK;
    if (requireStore(command)) {
        result = asJson ? TamoHostConfigList(glob, addMember, json.get())
                        : TamoHostConfigList(glob, addRow, &table);
    }
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the configuration store", result);
    }
    bool nothing = asJson ? json->child == nullptr : table.empty();
    if (asJson) {
        printJson(json);
    } else if (!nothing) {
        table.print();
    }
    if (nothing && glob != nullptr) {
        fail(command, "no key matches '%s': 'tamoctl list' shows all keys", glob);
    }
    return kSuccess;
}

}  // namespace

const Command kGetCommand = {
    "get", "[--json] KEY...", "print the values of configuration keys",
    "Prints the stored values, one a line in the order asked, all as of one moment. A key without\n"
    "a value is reported and makes the exit status 1; the other values are printed all the same.\n"
    "\n"
    "Options:\n"
    "  --json         print one object of keys and values\n"
    "\n"
    "Examples:\n"
    "  tamoctl get Conf.SIPCallParam.sipServerAddr\n"
    "  tamoctl get --json Conf.SIPCallParam.sipServerAddr Conf.SIPCallParam.sipPwd\n",
    runGet};

const Command kSetCommand = {
    "set", "KEY VALUE [KEY VALUE...]", "store configuration values",
    "Stores the values in one transaction: all of them, or none. Values are stored as they stand;\n"
    "the two password keys hold encrypted texts, which only the library's list handler writes.\n"
    "\n"
    "Examples:\n"
    "  tamoctl set Conf.SIPCallParam.sipServerAddr sip.example.com\n"
    "  tamoctl set Conf.Audio.gain -6 Conf.Audio.mute 0\n",
    runSet};

const Command kListCommand = {
    "list", "[--json] [GLOB]", "list configuration keys and values",
    "Lists the keys that match the shell pattern, or all, in order of key. Quote the pattern.\n"
    "\n"
    "Options:\n"
    "  --json         print one object of keys and values\n"
    "\n"
    "Examples:\n"
    "  tamoctl list\n"
    "  tamoctl list 'Conf.SIPCallParam.*'\n"
    "  tamoctl list --json | jq -r '.\"Conf.SIPCallParam.sipServerAddr\"'\n",
    runList};

}  // namespace tamoctl
