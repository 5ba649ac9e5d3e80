/* The certificate table, its updates and callbacks, and the path queries. */
#include <algorithm>
#include <atomic>
#include <thread>

#include "cert/published_record.h"
#include "tests/cert/cert_service.h"

namespace {

using std::string;
using Told = std::vector<uint32_t>;

Told changes, caUpdates;

void onChange(uint32_t argument) {
    changes.push_back(argument);
}

class CertStore : public CertService {
  protected:
    void SetUp() override {
        CertService::SetUp();
        ConfCertInit(this);
        ConfCertNotifyCallback(onChange);
        ConfCertUpdateNotifyCallback(nullptr);
        changes = fetched = {};
        log();
    }

    /* What an update of a type writes and, at its end, `rest`. */
    static string update(int type, const string &rest) {
        return "3[ConfOmCertCallback]ConfOmCertCallback enter, msgId = 0\n"
               "3[ConfCertUpdateCertInfo]ConfCertUpdateCertInfo enter, type = [" +
               std::to_string(type) + "]\n" + rest;
    }
};

const string kSize = "3[GetCertSize]cert size = [1048576]\n";

TEST_F(CertStore, StartGoesOnAfterFailures) {
    platform::failCall("TamoOmCertClientInit", 1);
    platform::failCall("TamoOmCertGetServiceCert", 3);
    ConfCertInit(this);
    EXPECT_EQ(fetched, (Told{263, 265, 260}));
    const string all = log();
    EXPECT_EQ(all.find("3[ConfCertInit]TamoOmCertClientInit enter\n"
                       "1[ConfCertInit]TamoOmCertClientInit ERROR\n"
                       "3[ConfCertUpdateCertInfo]ConfCertUpdateCertInfo enter, type = [0]\n"),
              0U);
    EXPECT_NE(all.find("1[ConfCertGetCertSizeAndInfo]TamoOmCertGetServiceCert ERROR\n"
                       "1[ConfCertGetAllCert]Failed to load the certificate. type = [2]\n"
                       "3[ConfCertUpdateCertInfo]ConfCertUpdateCertInfo enter, type = [3]\n"),
              string::npos);
}

TEST_F(CertStore, EachTypeTellsItsOwnWay) {
    const struct {
        uint32_t certId;
        int type;
        Told told;
    } cases[] = {{263, 0, {0}}, {265, 1, {}}, {259, 2, {1}}, {260, 3, {1}}};
    for (const auto &[certId, type, told] : cases) {
        changes.clear();
        handler(0, certId);
        EXPECT_EQ(changes, told) << type;
        EXPECT_EQ(log(), update(type, kSize));
    }
    const string failed = "conf secure func failed, err = ";
    handler(0, 264);
    EXPECT_EQ(log(), update(-1, "1[ConfCertGetCertSizeAndInfo]" + failed + "-1!\n\n"));
    keyIdLength = 257;
    handler(0, 263);
    EXPECT_EQ(log().find(update(0, kSize + "1[SetCertInfo]" + failed)), 0U);
    handler(2, 263);
    EXPECT_EQ(log(), "3[ConfOmCertCallback]ConfOmCertCallback enter, msgId = 2\n");
}

TEST_F(CertStore, UpdateFailsStepByStep) {
    const struct {
        const char *operation;
        uint64_t call;
        string records;
    } cases[] = {{"TamoOmCertGetExpectedSrvCertSize", 1,
                  "1[GetCertSize]TamoOmCertGetExpectedSrvCertSize ERROR\n"},
                 {"OsMemMallocSetCharMon", 1, kSize + "1[ConfCertGetCertSizeAndInfo]Null ptr.\n"},
                 {"OsMemMallocSetCharMon", 2, kSize + "3[ConfCertGetCertSizeAndInfo]malloc err!\n"},
                 {"TamoOmCertGetCertId", 1, kSize + "1[GetCertId]TamoOmCertGetCertId ERROR\n"}};
    for (const auto &[operation, call, records] : cases) {
        platform::failCall(operation, call);
        handler(0, 259);
        EXPECT_EQ(log(), update(2, records));
    }
    fetched.clear();
    for (const uint32_t size : {0U, 1048577U, UINT32_MAX}) {
        sizes.certificate = size;
        handler(0, 259);
        EXPECT_EQ(log(), update(2, "3[GetCertSize]cert size = [" + std::to_string(size) + "]\n"));
    }
    EXPECT_TRUE(fetched.empty() && changes.empty());
}

TEST_F(CertStore, ChangeOfTypeZeroWaitsForTheFirstCallback) {
    const string registered = "1[ConfCertNotifyCallback]Conf register certchange callback, Flag:";
    ConfCertNotifyCallback(nullptr);
    handler(0, 259);
    handler(0, 263);
    log();
    ConfCertNotifyCallback(nullptr);
    ConfCertNotifyCallback(onChange);
    ConfCertNotifyCallback(onChange);
    EXPECT_EQ(changes, Told{0});
    EXPECT_EQ(log(), registered + "1.\n" + registered + "1.\n" + registered + "0.\n");
}

TEST_F(CertStore, CaChangesAreToldAfterTheRefresh) {
    ConfCertUpdateNotifyCallback([](uint32_t msgId, uint32_t certId) {
        caUpdates = {msgId, certId, static_cast<uint32_t>(certs::list("/data/storage").size())};
    });
    handler(3, 6);
    EXPECT_EQ(caUpdates, Told{});
    certs::write(ca + "/late.txt", "text");
    handler(1, 7);
    EXPECT_EQ(caUpdates, (Told{1, 7, 1}));
}

TEST_F(CertStore, PathQueriesCheckCopyAndRecord) {
    const struct {
        string head;
        int32_t (*query)(char *, uint32_t);
        string path, refused;
    } cases[] = {
        {"1[ConfCertGetCaPath]", ConfCertGetCaPath, ca, "TamoOmCertGetCertPath error, 1\n"},
        {"1[ConfCertGetCrlPath]", ConfCertGetCrlPath, crl, "TamoOmCertGetCertPath error, 1\n"},
        {"1[ConfCertGetSrvCertFilePath]",
         [](char *dst, uint32_t size) { return ConfCertGetSrvCertFilePath(9, dst, size); },
         files.certPath, "TamoOmCertGetCertPath, ret=1, type=9.\n"}};
    for (const auto &[head, query, path, refused] : cases) {
        const auto length = static_cast<uint32_t>(path.size());
        char out[512] = "old";
        EXPECT_EQ(query(out, length + 1), 0);
        EXPECT_EQ(out, path);
        EXPECT_EQ(query(nullptr, 512), -1);
        EXPECT_EQ(query(out, length), 1);
        EXPECT_EQ(log().find(head + "input null error\n" + head + "conf secure func failed, err ="),
                  0U);
        platform::failCall("TamoOmCertGetCertPath", 1);
        EXPECT_EQ(query(out, sizeof(out)), -1);
        EXPECT_EQ(log(), head + refused);
    }
    EXPECT_EQ(askedFor, UINT32_MAX);
    ConfCertGetAddrCaPath(nullptr);
    EXPECT_EQ(log().find("1[ConfCertGetAddrCaPath]conf secure func failed, err = "), 0U);
}

TEST_F(CertStore, UpdatesRefreshesAndQueriesAtOnce) {
    certs::write(ca + "/a.txt", "text");
    handler(1, 0);
    const auto refresh = [this](uint32_t msgId, uint32_t certId) {
        for (int i = 0; i < 20; i++) {
            handler(msgId, certId);
            char path[512];
            ConfCertGetAddrCaPath(path);
            EXPECT_STREQ(path, "/data/storage\\");
            EXPECT_EQ(certs::read(storage + "/a.txt"), "text");
        }
    };
    std::thread one(refresh, 1, 0), two(refresh, 3, 0);
    one.join();
    two.join();
}

TEST(PublishedRecord, ReadersSeeWholeRecordsOfSeveralWriters) {
    struct Twin {
        uint32_t numbers[64];
    };
    static constinit PublishedRecord<Twin> shared;
    std::atomic<int> writing = 2;
    const auto writer = [&](uint32_t first) {
        for (uint32_t round = 0; round < 2000; round++) {
            Twin twin;
            std::fill(std::begin(twin.numbers), std::end(twin.numbers), first + round);
            shared.publish(twin);
        }
        writing--;
    };
    std::thread one(writer, 1), two(writer, 1U << 20);
    while (writing != 0) {
        const Twin seen = shared.read();
        for (const uint32_t number : seen.numbers) {
            ASSERT_EQ(number, seen.numbers[0]);
        }
    }
    one.join();
    two.join();
    EXPECT_EQ(shared.read().numbers[0] & 0xFFFFF, shared.read().numbers[0] >> 20 ? 1999U : 2000U);
}

}  // namespace
