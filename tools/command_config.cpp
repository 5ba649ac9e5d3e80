/* tamoctl get, set, reset and list: the configuration service's keys and values. */
#include <strings.h>

#include <cstdio>
#include <cstring>

#include "commands.h"
#include "output.h"
#include "rows.h"
#include "secret.h"
#include "tamo_host.h"
#include "tamo_om_config_client.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

uint32_t collect(const char *key, const char *value, void *entries) {
    static_cast<Entries *>(entries)->emplace_back(key, value);
    return 0;
}

/* The entries that match a shell pattern, or all. */
Entries readStore(const Command &command, const char *glob) {
    Entries entries;
    const uint32_t result = requireStore(command) ? TamoHostConfigList(glob, collect, &entries)
                                                  : uint32_t{TAMO_HOST_OK};
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the configuration store", result);
    }
    return entries;
}

[[noreturn]] void failUnknownKey(const Command &command, const char *key) {
    fail(command, "no value is stored for '%s'%s", key, suggestion(key, storedKeys()).c_str());
}

void setKey(const Command &command, ConfConfigOmRecord *record, const char *key) {
    if (key[0] == 0 || strlen(key) >= sizeof(record->key.text)) {
        failUsage(command, "invalid key '%.40s': must have 1 to %zu bytes, and has %zu", key,
                  sizeof(record->key.text) - 1, strlen(key));
    }
    TamoOmConfigcopyStr2Key(record, key);
}

/* Whether the service has a value for the key: its own comparison decides, whatever the letter case. */
bool isStored(const ConfConfigOmRecord &asked) {
    ConfConfigOmRecord record = asked;
    return TamoOmConfigStringMget(&record, 1) == 0;
}

int runGetOfStore(const Command &command, const Arguments &arguments) {
    const std::span<char *const> keys = arguments.operands();
    std::vector<ConfConfigOmRecord> records(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        setKey(command, &records[i], keys[i]);
    }
    const bool isThere = requireStore(command);
    const bool all =
        isThere && TamoOmConfigStringMget(records.data(), static_cast<uint32_t>(keys.size())) == 0;
    const char *firstMissing = nullptr;
    for (size_t i = 0; i < keys.size(); ++i) {
        const char *value = records[i].value.text;
        if (!all && (!isThere || (value[0] == 0 && !isStored(records[i])))) {
            firstMissing = firstMissing != nullptr ? firstMissing : keys[i];
        } else if (arguments.has("json")) {
            const Json json(cJSON_CreateObject());
            addText(json.get(), "key", keys[i]);
            addText(json.get(), "value", value);
            printJsonLine(json);
        } else {
            printValue(value);
        }
    }
    if (firstMissing != nullptr) {
        failUnknownKey(command, firstMissing);
    }
    return kSuccess;
}

void setValue(const Command &command, ConfConfigOmRecord *record, const char *value) {
    if (strlen(value) >= sizeof(record->value.text)) {
        failUsage(command, "invalid value of '%s': must have at most %zu bytes, and has %zu",
                  record->key.text, sizeof(record->value.text) - 1, strlen(value));
    }
    TamoOmConfigcopyStr2Val(&record->value, value);
}

void store(const Command &command, std::vector<ConfConfigOmRecord> *records) {
    requireRoot(command, Access::change);
    const int32_t result =
        TamoOmConfigStringMset(records->data(), static_cast<uint32_t>(records->size()));
    if (result != 0) {
        failHost(command, "nothing was stored", static_cast<uint32_t>(result));
    }
}

void setSecret(const Command &command, std::span<char *const> words) {
    if (words.size() != 1) {
        failUsage(command, "--secret takes one key, and no value on the command line");
    }
    std::vector<ConfConfigOmRecord> records(1);
    setKey(command, &records[0], words[0]);
    requireRoot(command, Access::change);
    Secret secret;
    readSecret(command, words[0], &secret);
    if (isKeptEncrypted(words[0])) {
        encryptSecret(command, &secret);
    }
    setValue(command, &records[0], secret.text);
    store(command, &records);
}

void setPairs(const Command &command, std::span<char *const> words) {
    if (words.empty() || words.size() % 2 != 0) {
        failUsage(command, "keys and values come in pairs");
    }
    std::vector<ConfConfigOmRecord> records(words.size() / 2);
    for (size_t i = 0; i < records.size(); ++i) {
        const char *key = words[2 * i], *value = words[2 * i + 1];
        setKey(command, &records[i], key);
        if (!isUtf8(key) || !isUtf8(value)) {
            failUsage(command, "the key '%s' or its value is not UTF-8", key);
        }
        if (isPassword(key, value)) {
            failUsage(command,
                      "'%s' is a password, which does not belong on a command line: use "
                      "'tamoctl set --secret %s'",
                      key, key);
        }
        setValue(command, &records[i], value);
    }
    store(command, &records);
}

}  // namespace

int runGet(const Command &command, const Arguments &arguments) {
    if (arguments.operands().empty()) {
        failUsage(command, "a key is missing");
    }
    requireRoot(command);
    return runGetOfStore(command, arguments);
}

int runSet(const Command &command, const Arguments &arguments) {
    arguments.has("secret") ? setSecret(command, arguments.operands())
                            : setPairs(command, arguments.operands());
    return kSuccess;
}

int runReset(const Command &command, const Arguments &arguments) {
    const std::span<char *const> words = arguments.operands();
    if (words.empty()) {
        failUsage(command, "a key, or a prefix that ends with '.', is missing");
    }
    requireRoot(command);
    const Entries entries = readStore(command, nullptr);
    std::vector<const char *> keys;
    for (const char *word : words) {
        const size_t before = keys.size(), length = strlen(word);
        const bool isPrefix = length != 0 && word[length - 1] == '.';
        for (const auto &[key, value] : entries) {
            if (strncasecmp(key.c_str(), word, length) == 0 && (isPrefix || key.size() == length)) {
                keys.push_back(key.c_str());
            }
        }
        if (keys.size() == before && isPrefix) {
            fail(command, "no key begins with '%s': nothing was removed", word);
        }
        if (keys.size() == before) {
            failUnknownKey(command, word);
        }
    }
    const uint32_t result = TamoHostConfigReset(keys.data(), static_cast<uint32_t>(keys.size()));
    if (result != TAMO_HOST_OK && result != TAMO_HOST_NOT_FOUND) {
        failHost(command, "nothing was removed", result);
    }
    return kSuccess;
}

int runList(const Command &command, const Arguments &arguments) {
    const char *glob = arguments.operands().empty() ? nullptr : arguments.operands()[0];
    requireRoot(command);
    Rows rows(command, arguments, {{"KEY", "key"}, {"VALUE", "value", false, true}});
    for (const auto &[key, value] : readStore(command, glob)) {
        if (!rows.add({key, value})) {
            break;
        }
    }
    if (rows.empty() && glob != nullptr) {
        fail(command, "no key matches '%s'%s", glob, suggestion(glob, storedKeys()).c_str());
    }
    return rows.finish();
}

}  // namespace tamoctl
