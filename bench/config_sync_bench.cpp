/* Ten thousand bound items: what binding, pulling and applying them costs beside the bare store
 * transactions that they demand, and what a report costs per key as it grows. */
#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench/take_turns.h"
#include "include/conf_config.h"
#include "include/conf_log_adapter.h"
#include "tamo_om_config_client.h"

namespace {

constexpr int32_t kItems = 10000;
constexpr int32_t kBatch = 50;

using bench::require;

bench::Table table(const char *title, size_t rounds) {
    return {.title = title, .samples = 1, .rounds = rounds, .seconds = 15};
}

std::vector<int32_t> numbers(kItems);
std::vector<std::string> names(kItems);

void bindAll() {
    for (size_t i = 0; i < names.size(); i++) {
        ConfConfigBind(names[i].c_str(), CONF_VALUE_INT, &numbers[i], sizeof(numbers[i]), nullptr);
    }
}

void bindAnew() {
    require(ConfConfigInit(bindAll, "Bench", "Conf") == 0, "ConfConfigInit");
}

template <typename Record>
void changeValues(std::vector<Record> *items, const std::function<void(Record *, int)> &put) {
    static int turn = 0;
    turn++;
    for (int i = 0; i < kItems; i++) {
        put(&(*items)[static_cast<size_t>(i)], turn * kItems + i);
    }
}

void measureItems() {
    std::vector<ConfConfigOmRecord> records(kItems);
    std::vector<ConfConfigListItem> list(kItems);
    for (size_t i = 0; i < names.size(); i++) {
        names[i] = "Conf.Bench.item" + std::to_string(i);
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(7));
    for (size_t i = 0; i < names.size(); i++) {
        TamoOmConfigcopyStr2Key(&records[i], names[i].c_str());
        snprintf(list[i].key, sizeof(list[i].key), "%s", names[i].c_str());
    }
    const auto write = [&] {
        changeValues<ConfConfigOmRecord>(&records, [](ConfConfigOmRecord *record, int number) {
            TamoOmConfigsetIntValue(&record->value, number);
        });
        for (int32_t at = 0; at < kItems; at += kBatch) {
            require(TamoOmConfigStringMset(&records[static_cast<size_t>(at)], kBatch) == 0, "Mset");
        }
    };
    const auto apply = [&](uint8_t level) {
        SetLogLevel(level);
        changeValues<ConfConfigListItem>(&list, [](ConfConfigListItem *item, int number) {
            snprintf(item->value, sizeof(item->value), "%d", number);
        });
        require(ConfConfigSetList(list.data(), kItems, 1) == kItems, "ConfConfigSetList");
        SetLogLevel(CONF_LOG_INFO);
    };
    bindAnew();
    bench::compare(
        table("10,000 changed items applied", 15),
        {{"200 bare transactions of 50 records", 0, write},
         {"ConfConfigSetList, errors only in the log", 1.2, [&] { apply(CONF_LOG_ERROR); }},
         {"ConfConfigSetList, its 20,000 records in the log", 0, [&] { apply(CONF_LOG_INFO); }}});
    bench::compare(
        table("10,000 items pulled, and bound", 15),
        {{"bare TamoOmConfigStringGet of each", 0,
          [&] {
              for (ConfConfigOmRecord &record : records) {
                  require(TamoOmConfigStringGet(&record) == 0, "TamoOmConfigStringGet");
              }
          }},
         {"ConfConfigInitOmCfg", 1.1, ConfConfigInitOmCfg},
         {.name = "ConfConfigInit with 10,000 ConfConfigBind", .limit = 0, .run = bindAnew}});
}

uint64_t told;

template <size_t... I>
constexpr auto makeCallbacks(std::index_sequence<I...>) {
    return std::array{+[](const ConfConfigListItem *, uint32_t count) { told += count + I; }...};
}

/* A report of ten keys for each of `callbacks` callbacks, one after the other ten times over. */
void report(ConfConfigOmVal *value, uint32_t callbacks) {
    static std::vector<ConfConfigChangeItem> changes(2000);
    for (uint32_t i = 0; i < callbacks * 10; i++) {
        changes[i].value = value;
        changes[i].key.length =
            static_cast<uint8_t>(snprintf(changes[i].key.text, sizeof(changes[i].key.text),
                                          "R.%u.%u", i % callbacks, i / callbacks));
    }
    const ConfConfigChangeList list = {callbacks * 10, changes.data()};
    ConfConfigClientCallBack(65536, 0, 0, &list);
}

void measureReports() {
    static constexpr auto callbacks = makeCallbacks(std::make_index_sequence<200>());
    for (size_t i = 0; i < 2000; i++) {
        const std::string name = "R." + std::to_string(i / 10) + "." + std::to_string(i % 10);
        ConfConfigBind(name.c_str(), CONF_VALUE_INT, &numbers[i], 4, callbacks[i / 10]);
    }
    ConfConfigOmVal value = {"4711", 4};
    bench::compare(table("A report, per key", 200),
                   {{"20 callbacks of 10 keys", 0, [&] { report(&value, 20); }, 200},
                    {"200 callbacks of 10 keys", 2, [&] { report(&value, 200); }, 2000}});
    require(told > 0, "delivering a report");
}

}  // namespace

int main() {
    const bench::DeviceRoot root;
    require(ConfLogInit() == 0, "ConfLogInit");
    measureItems();
    measureReports();
    ConfLogUnInit();
    return bench::finish();
}
