/* A certificate service of the test's own, in place of the platform's client. */
#pragma once
#include <atomic>
#include <cstring>
#include <string>

#include <conference_testkit_gtest.h>
#include "common/native_path.h"
#include "include/conf_cert.h"
#include "tests/cert/cert_files.h"
#include "tests/cert/handshake.h"

using certs::Context;

/* A record as CertService::log gives it. */
inline std::string error(const char *function, const std::string &text) {
    return std::string("1[") + function + "]" + text + "\n";
}

class CertService : public testkit::PlatformTest {
  protected:
    const std::string ca = "/data/ca", crl = "/data/crl", storage = "/data/storage";

    void SetUp() override {
        PlatformTest::SetUp();
        ERR_clear_error();
        for (const std::string &folder : {ca, crl, storage}) {
            certs::remove(folder);
            certs::write(folder + "/x", "");
            certs::remove(folder + "/x");
        }
        testkit::replace(TamoOmCertClientInit, [](void *) { return 0; });
        testkit::replace(TamoOmCertNotifyCallback, [this](ConfOmCertHandler registered) {
            handler = registered;
            return 0;
        });
        testkit::replace(TamoOmCustUtilGetStoragePath, [this] { return storagePath.c_str(); });
        answerQueries();
        answerContents();
    }

    void answerQueries() {
        testkit::replace(TamoOmCertGetCertPath, [this](uint32_t kind, uint32_t two, uint32_t certId,
                                                       ConfCertPathInfo *info) {
            const ConfCertPathInfo none = {};
            EXPECT_TRUE(two == 2 && memcmp(info, &none, sizeof(none)) == 0);
            askedFor = certId;
            *info = files;
            if (kind != OM_CERT_PATH_SERVER) {
                strcpy(info->certPath, (kind == OM_CERT_PATH_CA ? ca : crl).c_str());
            }
            return 0;
        });
        testkit::replace(TamoOmCertGetCapability, [this](uint8_t *capabilities) {
            memcpy(capabilities, keyless, sizeof(keyless));
            return 0;
        });
    }

    void answerContents() {
        testkit::replace(TamoOmCertGetExpectedSrvCertSize, [this](uint32_t, ConfCertSizes *out) {
            *out = sizes;
            return 0;
        });
        testkit::replace(TamoOmCertGetServiceCert, [](uint32_t certId, ConfCertContent *to) {
            EXPECT_EQ(to->extraData != nullptr, certId == 259 || certId == 260);
            memset(to->certData, 'c', 1048577);
            if (to->extraData != nullptr) {
                memset(to->extraData, 'e', to->extraLen + 1);
            }
            return 0;
        });
        testkit::replace(TamoOmCertGetCertId,
                         [this](const ConfCertIdBuffer *contents, ConfCertIdBuffer *identifier) {
                             EXPECT_TRUE(contents->data[0] == 'c' && identifier->length == 256);
                             memcpy(identifier->data, keyId.data(), 256);
                             identifier->length = keyIdLength;
                             return 0;
                         });
    }

    /* The unit's records since the last call, one a line: level and text. */
    static std::string log() {
        std::string lines;
        for (const testkit::Record &record : testkit::records()) {
            if (record.unit == "conf_cert") {
                lines += std::to_string(record.level) + record.whole() + '\n';
            }
        }
        testkit::clearRecords();
        return lines;
    }

    ConfOmCertHandler handler = nullptr;
    std::string storagePath = storage;
    ConfCertPathInfo files = {"/data/server/cert.pem", "/data/server/key.pem", ""};
    uint8_t keyless[10] = {};
    ConfCertSizes sizes = {1048576, 77, 0};
    std::string keyId = std::string(256, 'k');
    uint32_t keyIdLength = 256;
    std::atomic<uint32_t> askedFor = 0;
};
