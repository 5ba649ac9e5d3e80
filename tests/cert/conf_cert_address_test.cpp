/* The address CA directory: copies and hashed copies, in both layouts. */
#include <openssl/x509.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

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
        testkit::replace(TamoOmCustUtilGetCfgPath, [](uint32_t) { return "/data/cfg"; });
        EXPECT_EQ(ConfConfigXmlInit(), 0);
        EXPECT_EQ(refresh().find("1[ConfCertRemoveDirFile]/da******A/ is empty.\n"), 0U);
        certs::write(address + "/stale.pem", "");
        const Names names = putSources("/data/certfile/CA", "/data/certfile/CRL");
        ConfCertUpdateNotifyCallback([](uint32_t, uint32_t) { ADD_FAILURE(); });
        handler(1, 0);
        EXPECT_EQ(certs::list(address), names);
        const Context context = certs::clientContext();
        log();
        EXPECT_EQ(ConfAddCancelCrlToSslctx(context.get()), 0);
        EXPECT_EQ(log().find("1[ConfAddCancelCrlToSslctx]crlPath /data/tamo_conference/CA/\n"), 0U);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = 1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

/* The start has read the old file, and writes it after a notification told of the new one. */
TEST_F(CertAddress, AnOlderRefreshNeverOverwritesANewerOne) {
    const string old = certs::pem(party);
    certs::write(ca + "/a.pem", old);
    const string renewed = "# renewed\n" + old;
    std::thread notified;
    std::promise<void> done;
    testkit::replace(OsCopyFile, [&](const char *from, const char *to) {
        if (notified.joinable()) {
            return testkit::real(OsCopyFile)(from, to);
        }
        certs::write(ca + "/a.pem", renewed);
        notified = std::thread([&] { handler(OM_CERT_MSG_CA, 0), done.set_value(); });
        /* Refreshes that do not wait for each other have ended by then. */
        (void)done.get_future().wait_for(std::chrono::milliseconds(200));
        certs::write(storage + "/a.pem", old);
        return 0;
    });
    ConfCertInit(nullptr);
    notified.join();
    for (const string &name : {string("a.pem"), hashName(".0")}) {
        EXPECT_EQ(certs::read(storage + "/" + name), renewed) << name;
    }
}

TEST_F(CertAddress, WhatIsNoCertificateOrListIsRecordedAndTheWalkGoesOn) {
    while (hashName("")[0] != '0') { /* the file's name keeps the leading zero */
        party = certs::makeParty("Authority " + hashName(""), "ED25519");
    }
    const string badCertificate = error("ConfCertCreateCertSoftLink", "PEM_read_bio_X509 err.");
    const string badList = error("ConfCertCreateCrlSoftLink", "d2i_X509 failed");
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
}

TEST_F(CertAddress, WhatIsNoFileIsRecordedAndNobodyWaitsForIt) {
    const string missing = error("ConfCertCreateCertSoftLink", "BIO_new_file err.");
    const auto link = [](const char *to) {
        return [to](const string &path) { std::filesystem::create_symlink(to, path); };
    };
    const struct {
        std::function<void(const string &path)> make;
        int code;
        string hashed;
    } cases[] = {
        {[](const string &path) { mkfifo(path.c_str(), 0600); }, EINVAL, missing},
        {[](const string &path) { mknod(path.c_str(), S_IFSOCK | 0600, 0); }, ENXIO, missing},
        {link("odd.pem"), ELOOP, missing},
        {link("nothing"), ENOENT, missing},
        {link("/dev/zero"), EINVAL, missing},
        {[](const string &path) { std::filesystem::create_directory(path); }, EINVAL,
         "1[ConfCertCreateCertSoftLink]PEM_read_bio_X509 err.\n"}};
    for (const auto &[make, code, hashed] : cases) {
        make(support::scratchRoot() + ca + "/odd.pem");
        make(support::scratchRoot() + storage + "/odd.pem");
        EXPECT_EQ(refresh(), error("ConfCertCopyDirFile",
                                   "copy error[-1].errno[" + std::to_string(code) + "]") +
                                 hashed);
        certs::remove(ca + "/odd.pem");
        certs::remove(storage + "/odd.pem");
    }
}

/* "abc" just fits behind the directory, "abcd" does not. */
TEST_F(CertAddress, PathsThatDoNotFitOrAreNotThereAreRecorded) {
    const char *copy = "ConfCertCopyDirFile";
    const string deep = storagePath = "/data/" + string(250, 'n') + "/" + string(250, 'n');
    const string records = error(copy, "sprintf fail!") + error(copy, "/data/crl\\ is empty.");
    certs::remove(crl);
    certs::write(ca + "/abc", "");
    certs::write(ca + "/abcd", "");
    certs::write(deep + "/x", "");
    EXPECT_EQ(refresh(), records);
    EXPECT_EQ(certs::list(deep), (Names{"abc", "x"}));
    storagePath = string(600, 's');
    EXPECT_EQ(refresh(),
              error("ConfCertUpdateLdapCert", "conf secure func failed, err = 34!\n") + records);
    storagePath = "";
    testkit::failEveryCall(TamoOmCertGetCertPath);
    const char *update = "ConfCertUpdateLdapCert", *refused = "TamoOmCertGetCertPath error, 1";
    EXPECT_EQ(refresh(), error("ConfCertGetCaPath", refused) +
                             error(update, "ConfCertGetCaPath error.") +
                             error("ConfCertGetCrlPath", refused) +
                             error(update, "ConfCertGetCrlPath error.") +
                             error(copy, "path is null!") + error(copy, "path is null!"));
    char directory[512];
    ConfCertGetAddrCaPath(directory);
    EXPECT_EQ(directory, deep + "\\");
}

}  // namespace
