/* The certificate table, its updates and callbacks, and the path queries. */
#include <algorithm>

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
        changes = {};
        log();
    }
};

TEST_F(CertStore, UpdatesTellOrFailStepByStep) {
    const string size = "3[GetCertSize]cert size = [1048576]\n";
    const string info = "[ConfCertGetCertSizeAndInfo]", failed = "conf secure func failed, err = ";
    const string none = "OsCopyFile", memory = "OsMemMallocSetCharMon";
    const string query = "TamoOmCertGetExpectedSrvCertSize", id = "TamoOmCertGetCertId";
    const string fetch = "TamoOmCertGetServiceCert";
    const struct {
        uint32_t certId;
        int type;
        Told told;
        string records, failing;
        uint64_t call = 1;
        uint32_t bytes = 1048576, idLength = 256;
    } cases[] = {
        {263, 0, {0}, size, none},
        {265, 1, {}, size, none},
        {259, 2, {1}, size, none},
        {260, 3, {1}, size, none},
        {264, -1, {}, "1" + info + failed + "-1!\n\n", none},
        {263, 0, {}, "1[GetCertSize]" + query + " ERROR\n", query},
        {263, 0, {}, "3[GetCertSize]cert size = [0]\n", none, 1, 0},
        {263, 0, {}, "3[GetCertSize]cert size = [1048577]\n", none, 1, 1048577},
        {259, 2, {}, size + "1" + info + "Null ptr.\n", memory},
        {259, 2, {}, size + "3" + info + "malloc err!\n", memory, 2},
        {260, 3, {}, size + "1" + info + fetch + " ERROR\n", fetch},
        {259, 2, {}, size + "1[GetCertId]" + id + " ERROR\n", id},
        {263, 0, {0}, size + "1[SetCertInfo]" + failed + "34!\n\n", none, 1, 1U << 20, 257}};
    for (const auto &[certId, type, told, records, failing, call, bytes, idLength] : cases) {
        SetUp();
        sizes.certificate = bytes;
        keyIdLength = idLength;
        testkit::failCall(failing, call);
        handler(0, certId);
        EXPECT_EQ(changes, told) << records;
        EXPECT_EQ(log(),
                  "3[ConfOmCertCallback]ConfOmCertCallback enter, msgId = 0\n"
                  "3[ConfCertUpdateCertInfo]ConfCertUpdateCertInfo enter, type = [" +
                      std::to_string(type) + "]\n" + records);
    }
    handler(2, 263);
    EXPECT_EQ(log(), "3[ConfOmCertCallback]ConfOmCertCallback enter, msgId = 2\n");
}

TEST_F(CertStore, StartGoesOnAfterFailures) {
    testkit::failCall(TamoOmCertClientInit, 1);
    testkit::failEveryCall(TamoOmCertGetExpectedSrvCertSize);
    ConfCertInit(this);
    string expected =
        "3[ConfCertInit]TamoOmCertClientInit enter\n1[ConfCertInit]TamoOmCertClientInit ERROR\n";
    for (const string type : {"[0]\n", "[1]\n", "[2]\n", "[3]\n"}) {
        expected += "3[ConfCertUpdateCertInfo]ConfCertUpdateCertInfo enter, type = " + type +
                    "1[GetCertSize]TamoOmCertGetExpectedSrvCertSize ERROR\n"
                    "1[ConfCertGetAllCert]Failed to load the certificate. type = " +
                    type;
    }
    EXPECT_EQ(log(), expected);
}

TEST_F(CertStore, ChangeOfTypeZeroWaitsForTheFirstCallback) {
    ConfCertNotifyCallback(nullptr);
    handler(0, 259);
    handler(0, 263);
    for (const auto &[callback, flag] :
         {std::pair{ConfCertChangeCallback{}, "1."}, {onChange, "1."}, {onChange, "0."}}) {
        log();
        ConfCertNotifyCallback(callback);
        EXPECT_EQ(log(), error("ConfCertNotifyCallback",
                               string("Conf register certchange callback, Flag:") + flag));
    }
    EXPECT_EQ(changes, Told{0});
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
        const char *function;
        int32_t (*query)(char *, uint32_t);
        string path, refused;
    } cases[] = {{"ConfCertGetCaPath", ConfCertGetCaPath, ca, "TamoOmCertGetCertPath error, 1"},
                 {"ConfCertGetCrlPath", ConfCertGetCrlPath, crl, "TamoOmCertGetCertPath error, 1"},
                 {"ConfCertGetSrvCertFilePath",
                  [](char *dst, uint32_t size) { return ConfCertGetSrvCertFilePath(9, dst, size); },
                  files.certPath, "TamoOmCertGetCertPath, ret=1, type=9."}};
    for (const auto &[function, query, path, refused] : cases) {
        const auto length = static_cast<uint32_t>(path.size());
        char out[512] = "old";
        EXPECT_EQ(query(out, length + 1), 0);
        EXPECT_EQ(out, path);
        EXPECT_EQ(query(nullptr, 512), -1);
        EXPECT_EQ(query(out, length), 1);
        testkit::failCall(TamoOmCertGetCertPath, 1);
        EXPECT_EQ(query(out, sizeof(out)), -1);
        EXPECT_EQ(log(), error(function, "input null error") +
                             error(function, "conf secure func failed, err = 34!\n") +
                             error(function, refused));
    }
    EXPECT_EQ(askedFor, UINT32_MAX);
    ConfCertGetAddrCaPath(nullptr);
    EXPECT_EQ(log(), error("ConfCertGetAddrCaPath", "conf secure func failed, err = 22!\n"));
}

}  // namespace
