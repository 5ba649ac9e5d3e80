/* The address CA directory: copies and hashed copies, in both layouts. */
#include <openssl/x509.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "include/conf_config.h"
#include "tests/cert/cert_service.h"
#include "tests/support/scratch_root.h"

namespace {

using std::string;
using Names = std::vector<string>;

class CertAddress : public CertService {
  protected:
    void SetUp() override {
        CertService::SetUp();
        ConfCertInit(nullptr);
        log();
    }

    /* A refresh's records but the first one. */
    string refresh() {
        handler(3, 0);
        const string all = log();
        return all.substr(all.find('\n') + 1);
    }

    string hashName(const char *suffix) const {
        char name[16];
        snprintf(name, sizeof(name), "%08lx%s", X509_subject_name_hash(party.certificate.get()),
                 suffix);
        return name;
    }

    /* Fills the sources and returns the names that a refresh leaves. */
    Names putSources(const string &caSource, const string &crlSource) {
        certs::write(caSource + "/a.pem", certs::pem(party));
        certs::write(caSource + "/README", "text");
        certs::write(crlSource + "/b_crl.pem", certs::crlPem(party));
        certs::write(crlSource + "/list.CRL", certs::crlPem(party));
        Names names = {"README", "a.pem", "b_crl.pem", "list.CRL", hashName(".0"), hashName(".r0")};
        std::sort(names.begin(), names.end());
        return names;
    }

    certs::Party party = certs::makeParty("Authority", "EC");
};

TEST_F(CertAddress, ServiceLayoutAddsToWhatIsThere) {
    const Names names = putSources(ca, crl);
    EXPECT_EQ(refresh(), "");
    certs::remove(ca + "/README");
    EXPECT_EQ(refresh(), "");
    EXPECT_EQ(certs::list(storage), names);
    EXPECT_EQ(certs::read(storage + "/" + hashName(".0")), certs::pem(party));
    EXPECT_EQ(certs::read(storage + "/" + hashName(".r0")), certs::read(crl + "/b_crl.pem"));
}

/* The switch is read once in a process: this one has its own. */
TEST_F(CertAddress, FixedLayoutIsEmptiedAndFeedsTheLists) {
    const pid_t child = fork();
    if (child == 0) {
        const string address = "/data/tamo_conference/CA";
        certs::write("/data/cfg/conference/conf_config.xml",
                     "<c><s name='isForbiddenKitCapbility'>1</s></c>");
        platform::override(TamoOmCustUtilGetCfgPath, [](uint32_t) { return "/data/cfg"; });
        EXPECT_EQ(ConfConfigXmlInit(), 0);
        EXPECT_EQ(refresh().find("1[ConfCertRemoveDirFile]/da******A/ is empty.\n"), 0U);
        certs::write(address + "/stale.pem", "");
        const Names names = putSources("/data/certfile/CA", "/data/certfile/CRL");
        ConfCertUpdateNotifyCallback([](uint32_t, uint32_t) { ADD_FAILURE(); });
        handler(1, 0);
        EXPECT_EQ(certs::list(address), names);
        const Context context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
        log();
        EXPECT_EQ(ConfAddCancelCrlToSslctx(context.get()), 0);
        EXPECT_EQ(log().find("1[ConfAddCancelCrlToSslctx]crlPath /data/tamo_conference/CA/\n"), 0U);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = 1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(CertAddress, WhatIsNoCertificateOrListIsRecordedAndTheWalkGoesOn) {
    while (hashName("")[0] != '0') { /* the file's name keeps the leading zero */
        party = certs::makeParty("Authority " + hashName(""), "ED25519");
    }
    const string badCertificate = "1[ConfCertCreateCertSoftLink]PEM_read_bio_X509 err.\n";
    const string badList = "1[ConfCertCreateCrlSoftLink]d2i_X509 failed\n";
    const string whole = certs::pem(party);
    const struct {
        string name, contents, records;
    } cases[] = {{"/x.pem", "", badCertificate},
                 {"/x.pem", whole.substr(0, whole.size() / 2), badCertificate},
                 {"/x.pem", certs::crlPem(party), badCertificate},
                 {"/crl.pem", whole, badList},
                 {"/CRL.PEM", string(1 << 20, 'A'), badList}};
    for (const auto &[name, contents, records] : cases) {
        certs::write(ca + name, contents);
        certs::write(ca + "/z.pem", whole);
        EXPECT_EQ(refresh(), records);
        EXPECT_EQ(certs::read(storage + "/" + hashName(".0")), whole);
        certs::remove(ca + name);
        certs::remove(storage + name);
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
    ASSERT_EQ(mkfifo((support::scratchRoot() + storage + "/pipe.pem").c_str(), 0600), 0);
    EXPECT_EQ(refresh(), "1[ConfCertCreateCertSoftLink]BIO_new_file err.\n");
}

TEST_F(CertAddress, FailuresOfThePlatformAreRecorded) {
    const string update = "1[ConfCertUpdateLdapCert]", copy = "1[ConfCertCopyDirFile]";
    certs::write(ca + "/abcd", "");
    platform::override(OsCopyFile, [](const char *, const char *) {
        errno = 5;
        return 9;
    });
    EXPECT_EQ(refresh(), copy + "copy error[9].errno[5]\n");
    platform::failEveryCall("TamoOmCertGetCertPath");
    EXPECT_EQ(refresh(), "1[ConfCertGetCaPath]TamoOmCertGetCertPath error, 1\n" + update +
                             "ConfCertGetCaPath error.\n"
                             "1[ConfCertGetCrlPath]TamoOmCertGetCertPath error, 1\n" +
                             update + "ConfCertGetCrlPath error.\n" + copy + "path is null!\n" +
                             copy + "path is null!\n");
    platform::failCall("TamoOmCertGetCertPath", 0);
    const string deep = storagePath = "/data/" + string(250, 'n') + "/" + string(250, 'n');
    const string records = copy + "sprintf fail!\n" + copy + "/data/crl\\ is empty.\n";
    certs::remove(crl);
    certs::write(ca + "/abcd", "");
    certs::write(deep + "/x", "");
    EXPECT_EQ(refresh(), records);
    storagePath = string(600, 's');
    EXPECT_EQ(refresh().find(update + "conf secure func failed, err = "), 0U);
    storagePath = "";
    EXPECT_EQ(refresh(), records);
    char directory[512];
    ConfCertGetAddrCaPath(directory);
    EXPECT_EQ(directory, deep + "\\");
}

}  // namespace
