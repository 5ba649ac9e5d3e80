/* The configuration service beside bare SQLite on the same work and with the same settings: a list of
 * 500 keys read in one transaction, one key, and 50 records written in one transaction.
 *
 * The bare rows have a file and a connection of their own with prepared statements, and copy each value
 * into the record. */
#include <sqlite3.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bench/take_turns.h"
#include "include/conf_config.h"
#include "include/conf_msg_api.h"
#include "tamo_host.h"
#include "tamo_os_mem.h"

namespace {

constexpr uint32_t kReadKeys = 500;
constexpr uint32_t kWrittenKeys = 50;
using bench::require;

bench::Table table(const char *title, size_t samples) {
    return {.title = title, .samples = samples, .rounds = 120};
}

std::vector<ConfConfigOmRecord> makeRecords(uint32_t count) {
    std::vector<ConfConfigOmRecord> records(count);
    for (uint32_t at = 0; at < count; at++) {
        std::string key = "Conf.SIPCallParam.parameter" + std::to_string(at * 7919 % count);
        std::string value = "sip:terminal" + std::to_string(at) + "@conference.example.com;tls";
        TamoOmConfigcopyStr2Key(&records[at], key.c_str());
        TamoOmConfigcopyStr2Val(&records[at].value, value.c_str());
    }
    return records;
}

/* Another value than the last, of the same length. */
void changeValues(std::vector<ConfConfigOmRecord> &records) {
    for (ConfConfigOmRecord &record : records) {
        char &letter = record.value.text[4];
        letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1);
    }
}

/* What a program without the service would write. */
class BareStore {
  public:
    explicit BareStore(const std::string &path) {
        require(sqlite3_open_v2(path.c_str(), &database,
                                SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                nullptr) == SQLITE_OK &&
                    sqlite3_exec(database,
                                 "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                                 "CREATE TABLE IF NOT EXISTS setting (key TEXT PRIMARY KEY, "
                                 "value TEXT NOT NULL) WITHOUT ROWID",
                                 nullptr, nullptr, nullptr) == SQLITE_OK,
                "opening the bare store");
        begin = prepare("BEGIN");
        beginWrite = prepare("BEGIN IMMEDIATE");
        commit = prepare("COMMIT");
        select = prepare("SELECT value FROM setting WHERE key = ?1");
        insert = prepare(
            "INSERT INTO setting (key, value) VALUES (?1, ?2) "
            "ON CONFLICT (key) DO UPDATE SET value = excluded.value");
    }
    ~BareStore() {
        for (sqlite3_stmt *statement : {begin, beginWrite, commit, select, insert}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(database);
    }
    BareStore(const BareStore &) = delete;
    BareStore &operator=(const BareStore &) = delete;

    void read(std::vector<ConfConfigOmRecord> &records) {
        run(begin);
        for (ConfConfigOmRecord &record : records) {
            bindKey(select, record);
            require(sqlite3_step(select) == SQLITE_ROW, "bare read");
            int length = sqlite3_column_bytes(select, 0);
            memcpy(record.value.text, sqlite3_column_text(select, 0),
                   static_cast<size_t>(length) + 1);
            record.value.length = static_cast<uint32_t>(length);
            sqlite3_reset(select);
        }
        run(commit);
    }

    void write(const std::vector<ConfConfigOmRecord> &records) {
        run(beginWrite);
        for (const ConfConfigOmRecord &record : records) {
            bindKey(insert, record);
            sqlite3_bind_text(insert, 2, record.value.text, static_cast<int>(record.value.length),
                              SQLITE_STATIC);
            run(insert);
        }
        run(commit);
    }

  private:
    sqlite3_stmt *prepare(const char *text) {
        sqlite3_stmt *statement = nullptr;
        require(sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                                   nullptr) == SQLITE_OK,
                text);
        return statement;
    }
    static void bindKey(sqlite3_stmt *statement, const ConfConfigOmRecord &record) {
        sqlite3_bind_text(statement, 1, record.key.text, record.key.length, SQLITE_STATIC);
    }
    static void run(sqlite3_stmt *statement) {
        require(sqlite3_step(statement) == SQLITE_DONE, "bare statement");
        sqlite3_reset(statement);
    }

    sqlite3 *database = nullptr;
    sqlite3_stmt *begin, *beginWrite, *commit, *select, *insert;
};

MeetingServerMsgBlock *makeBlock(const std::vector<ConfConfigOmRecord> &records) {
    std::vector<ConfConfigListItem> items(records.size());
    for (size_t at = 0; at < records.size(); at++) {
        memcpy(items[at].key, records[at].key.text, sizeof(items[at].key));
    }
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(
        items.data(), static_cast<uint32_t>(items.size() * sizeof(items[0])));
    require(block != nullptr, "making a message block");
    block->itemCount = static_cast<uint32_t>(items.size());
    return block;
}

void readAsBlock(MeetingServerMsgBlock *block) {
    require(ConfConfigGetConfConfig(0, block, GetMeetingServerMsgBlockSize(block)) == 0,
            "ConfConfigGetConfConfig");
    OSMemTypeFreeMon(block->resultList, 0, 0, __LINE__, "config_bench");
    block->resultList = nullptr;
}

void measureReading(const std::string &root) {
    auto records = makeRecords(kReadKeys);
    require(TamoOmConfigStringMset(records.data(), kReadKeys) == 0, "TamoOmConfigStringMset");
    BareStore bare(root + "/read.db");
    bare.write(records);
    MeetingServerMsgBlock *block = makeBlock(records);
    bench::compare(
        table("500 keys read", 10),
        {{"bare prepared reads, one transaction", 0, [&] { bare.read(records); }},
         {"TamoOmConfigStringMget", 1.2,
          [&] { require(TamoOmConfigStringMget(records.data(), kReadKeys) == 0, "Mget"); }},
         {"ConfConfigGetConfConfig", 1.2, [&] { readAsBlock(block); }}});
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "config_bench");

    std::vector<ConfConfigOmRecord> one(records.begin(), records.begin() + 1);
    bench::compare(table("One key read", 200),
                   {{"bare prepared read", 0, [&] { bare.read(one); }},
                    {"TamoOmConfigStringGet", 1.3,
                     [&] { require(TamoOmConfigStringGet(&one[0]) == 0, "Get"); }}});
}

/* Two files: a write to the other's would empty each connection's cache. */
void measureWriting(const std::string &root) {
    BareStore bare(root + "/written.db");
    bare.write(makeRecords(kReadKeys));
    auto records = makeRecords(kReadKeys);
    records.resize(kWrittenKeys);
    auto bareWrite = [&] {
        changeValues(records);
        bare.write(records);
    };
    auto clientWrite = [&] {
        changeValues(records);
        require(TamoOmConfigStringMset(records.data(), kWrittenKeys) == 0,
                "TamoOmConfigStringMset");
    };
    bench::compare(table("50 records written", 10), {{"bare transaction, one flush", 0, bareWrite},
                                                     {"TamoOmConfigStringMset", 1.2, clientWrite}});

    TamoHostConfigWatch *watch = nullptr;
    require(TamoHostConfigWatchOpen(&watch) == TAMO_HOST_OK, "TamoHostConfigWatchOpen");
    std::atomic<bool> over = false;
    std::thread watcher([&] {
        auto visit = [](const TamoHostConfigChange *, void *) -> uint32_t { return TAMO_HOST_OK; };
        while (!over) {
            (void)TamoHostConfigWatchNext(watch, 100, visit, nullptr);
        }
    });
    bench::compare(table("50 records written and reported", 10),
                   {{"bare transaction, one flush", 0, bareWrite},
                    {"TamoOmConfigStringMset, a watcher reads", 1.3, clientWrite}});
    over = true;
    watcher.join();
    TamoHostConfigWatchClose(watch);
}

}  // namespace

int main() {
    const bench::DeviceRoot root;
    measureReading(root.path());
    measureWriting(root.path());
    return bench::finish();
}
