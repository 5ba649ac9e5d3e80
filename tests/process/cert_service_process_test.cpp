/* The certificate service between processes: an administrator's hands, and those who hear of it. */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <future>

#include "platform/tamo_conference_sslex.h"
#include "platform/tamo_om_cert_client.h"
#include "platform/tamo_os_file.h"
#include "tests/cert/handshake.h"
#include "tests/process/cert_administrator.h"
#include "tests/support/child_process.h"

namespace {

using certs::Context;
using std::string;

/* ---- notifications ---- */

void tellMessage(uint32_t message, uint32_t certId) {
    support::tellParent(std::to_string(message) + " " + std::to_string(certId));
}

const support::ChildRole watcher("watcher", [](const support::ChildArguments &) {
    const bool good =
        TamoOmCertClientInit(nullptr) == 0 && TamoOmCertNotifyCallback(tellMessage) == 0;
    support::tellParent(good ? "watching" : "failed");
    support::hearParent();
    return 0;
});

class CertNotifications : public testing::Test {
  protected:
    void SetUp() override { removeAll(); }

    /* Exactly `expected`, then what a change of the lists brings. */
    void expectMessages(support::ChildProcess &child, const Words &expected) {
        for (const string &message : expected) {
            EXPECT_EQ(child.hear(), message);
        }
        certs::write("/data/certfile/CRL/mark.pem", std::to_string(++marks_));
        EXPECT_EQ(child.hear(), "3 0");
    }

  private:
    int marks_ = 0;
};

TEST_F(CertNotifications, EachChangeOfTheCaFilesIsToldOnceToEveryProcess) {
    support::ChildProcess first("watcher"), second("watcher");
    ASSERT_EQ(first.hear(), "watching");
    ASSERT_EQ(second.hear(), "watching");
    const string ca = native("/data/certfile/CA/"), aside = native("/data/in/aside.pem");
    const struct {
        const char *what;
        std::function<void()> change;
    } cases[] = {
        {"written", [&] { certs::write("/data/certfile/CA/a.pem", "one"); }},
        {"written again", [&] { certs::write("/data/certfile/CA/a.pem", "two"); }},
        {"moved in",
         [&] {
             certs::write("/data/in/aside.pem", "x");
             ASSERT_EQ(rename(aside.c_str(), (ca + "b.pem").c_str()), 0);
         }},
        {"moved over",
         [&] { ASSERT_EQ(rename((ca + "b.pem").c_str(), (ca + "a.pem").c_str()), 0); }},
        {"copied", [&] { OsCopyFile("/data/certfile/CA/a.pem", "/data/certfile/CA/c.pem"); }},
        {"linked", [&] { ASSERT_EQ(symlink("c.pem", (ca + "d.pem").c_str()), 0); }},
        {"removed", [&] { ASSERT_EQ(unlink((ca + "a.pem").c_str()), 0); }},
        {"all gone", [&] { ASSERT_EQ(rename(ca.c_str(), native("/data/in/CA").c_str()), 0); }},
        {"made anew", [] { certs::write("/data/certfile/CA/e.pem", "x"); }},
    };
    for (const auto &[what, change] : cases) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, what);
        change();
        EXPECT_EQ(first.hear(), "1 0");
        EXPECT_EQ(second.hear(), "1 0");
        expectMessages(first, {});
        EXPECT_EQ(second.hear(), "3 0");
    }
}

TEST_F(CertNotifications, AServerCertificateIsToldWhenItsKeyBelongsToIt) {
    const certs::Party one = certs::makeParty("One", "EC"), two = certs::makeParty("Two", "EC");
    const string place = "/data/certfile/server/265/";
    support::ChildProcess child("watcher");
    ASSERT_EQ(child.hear(), "watching");
    EXPECT_EQ(install("263", one).code, 0);
    expectMessages(child, {"0 263"});
    EXPECT_EQ(install("263", two, {}, "secret").code, 0);
    expectMessages(child, {"0 263"});

    certs::write(place + "cert.pem", certs::pem(one));
    expectMessages(child, {});
    certs::write(place + "key.pem", certs::keyPem(one));
    expectMessages(child, {"0 265"});
    certs::write(place + "key.pem", certs::keyPem(two, "secret"));
    certs::write(place + "cert.pem", certs::pem(two));
    expectMessages(child, {});
    certs::write(place + "passphrase", "secret");
    expectMessages(child, {"0 265"});

    EXPECT_EQ(install("265", one).code, 0) << "over a directory made by hand";
    expectMessages(child, {"0 265"});
    EXPECT_EQ(tamoctl({"cert", "remove", "265"}).code, 0);
    expectMessages(child, {"0 265"});
}

/* Paths and the identifier that a handler keeps change at one moment: when it has asked for it. */
TEST(CertVersions, OneThatIsPutInPlaceIsHeldBackUntilTheHandlerHasHeardOfIt) {
    removeAll();
    const certs::Party one = certs::makeParty("One", "EC"), two = certs::makeParty("Two", "EC");
    ASSERT_EQ(install("263", one, {"--engine"}).code, 0);
    static std::promise<void> told, identify, identified, end;
    static string seenByHandler;
    const auto chainNow = [] {
        ConfCertPathInfo info = {};
        uint8_t capabilities[10] = {};
        EXPECT_EQ(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 263, &info), 0);
        EXPECT_EQ(TamoOmCertGetCapability(capabilities), 0);
        return certs::read(info.certPath) + std::to_string(capabilities[6]);
    };
    static const auto seen = chainNow;
    ASSERT_EQ(TamoOmCertNotifyCallback([](uint32_t message, uint32_t) {
                  if (message == OM_CERT_MSG_SERVER) {
                      told.set_value();
                      identify.get_future().wait();
                      seenByHandler = seen();
                      uint8_t room[256] = {};
                      ConfCertIdBuffer id = {room, sizeof(room)};
                      auto *text = reinterpret_cast<uint8_t *>(seenByHandler.data());
                      const ConfCertIdBuffer contents = {
                          text, static_cast<uint32_t>(seenByHandler.size())};
                      EXPECT_EQ(TamoOmCertGetCertId(&contents, &id), 0);
                      identified.set_value();
                      end.get_future().wait();
                  }
              }),
              0);
    ASSERT_EQ(install("263", two).code, 0);
    told.get_future().wait();
    EXPECT_EQ(chainNow(), certs::pem(one) + "1");
    identify.set_value();
    identified.get_future().wait();
    EXPECT_EQ(seenByHandler, certs::pem(two) + "0");
    EXPECT_EQ(chainNow(), certs::pem(two) + "0");
    end.set_value();
    ASSERT_EQ(TamoOmCertNotifyCallback(nullptr), 0);
}

/* ---- queries ---- */

TEST(CertQueries, AnswerFromTheInstalledFiles) {
    removeAll();
    const certs::Party party = certs::makeParty("Party", "RSA");
    certs::write("/data/in/extra.pem", "the second part");
    ASSERT_EQ(install("259", party, {"--extra", native("/data/in/extra.pem")}, "secret").code, 0);
    ASSERT_EQ(install("265", party, {"--engine"}).code, 0);

    ConfCertPathInfo info = {}, kept = {};
    ASSERT_EQ(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 259, &info), 0);
    EXPECT_EQ(certs::read(info.certPath), certs::pem(party));
    EXPECT_EQ(certs::read(info.keyPath).find("-----BEGIN ENCRYPTED"), 0U);
    EXPECT_STREQ(info.keyPassword, "secret");
    ASSERT_EQ(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 265, &kept), 0);
    EXPECT_STREQ(kept.keyPath, "");
    struct stat status;
    for (const char *secret : {info.keyPath, info.certPath}) {
        ASSERT_EQ(stat(native(secret).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600U);
    }

    ConfCertSizes sizes = {};
    ASSERT_EQ(TamoOmCertGetExpectedSrvCertSize(259, &sizes), 0);
    std::vector<uint8_t> chain(sizes.certificate), extra(sizes.extra);
    ConfCertContent content = {chain.data(), 0, extra.data(), sizes.extra, {}};
    ASSERT_EQ(TamoOmCertGetServiceCert(259, &content), 0);
    EXPECT_EQ(string(chain.begin(), chain.end()), certs::pem(party));
    EXPECT_EQ(string(extra.begin(), extra.end()), "the second part");
    content.extraLen = 3;
    EXPECT_NE(TamoOmCertGetServiceCert(259, &content), 0) << "it does not fit";

    uint8_t identifier[256] = {};
    const ConfCertIdBuffer contents = {chain.data(), sizes.certificate};
    ConfCertIdBuffer out = {identifier, sizeof(identifier)};
    ASSERT_EQ(TamoOmCertGetCertId(&contents, &out), 0);
    EXPECT_EQ(string(reinterpret_cast<char *>(identifier)),
              certs::read(string(kept.certPath, strlen(kept.certPath) - 8) + "engine_key"));
    EXPECT_EQ(out.length, 64U);

    uint8_t capabilities[10] = {};
    const uint8_t expected[10] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 0};
    ASSERT_EQ(TamoOmCertGetCapability(capabilities), 0);
    EXPECT_EQ(memcmp(capabilities, expected, 10), 0);
}

TEST(CertQueries, RefuseWhatIsMissingOrTooLarge) {
    removeAll();
    ConfCertPathInfo info = {};
    ConfCertSizes sizes = {};
    for (const uint32_t id : {0U, 256U, 263U, 267U, UINT32_MAX}) {
        EXPECT_NE(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, id, &info), 0) << id;
    }
    const string place = "/data/certfile/server/263/";
    const std::pair<size_t, bool> chains[] = {{1 << 20, true}, {(1 << 20) + 1, false}};
    for (const auto &[size, good] : chains) {
        certs::write(place + "cert.pem", string(size, 'x'));
        EXPECT_EQ(TamoOmCertGetExpectedSrvCertSize(263, &sizes) == 0, good);
    }
    certs::write(place + "key.pem", "key");
    const std::pair<size_t, bool> phrases[] = {{63, true}, {64, false}};
    for (const auto &[length, good] : phrases) {
        certs::write(place + "passphrase", string(length, 'p') + "\r\n");
        EXPECT_EQ(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 263, &info) == 0, good);
        EXPECT_EQ(string(info.keyPassword), good ? string(length, 'p') : "");
    }
    const certs::Party party = certs::makeParty("Party", "EC");
    certs::remove(place + "passphrase");
    certs::write(place + "cert.pem", certs::pem(party));
    certs::write(place + "key.pem", certs::keyPem(party, "secret"));
    EXPECT_NE(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 263, &info), 0)
        << "a reader would ask a person";
    EXPECT_STREQ(info.keyPath, "");
    certs::write(place + "passphrase", "secret");
    EXPECT_EQ(TamoOmCertGetCertPath(OM_CERT_PATH_SERVER, 2, 263, &info), 0);
    uint8_t text[] = "no certificate", room[256];
    const ConfCertIdBuffer contents = {text, sizeof(text)};
    ConfCertIdBuffer out = {room, sizeof(room)};
    EXPECT_NE(TamoOmCertGetCertId(&contents, &out), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(CertQueries, ACaFileIsLoadedAsAWholeOrNotAtAll) {
    const certs::Party one = certs::makeParty("One", "EC"), two = certs::makeParty("Two", "EC");
    const string both = certs::pem(one) + "# and\n" + certs::pem(two);
    const std::pair<string, int> cases[] = {{both, 2},
                                            {both.substr(0, both.size() - 60), 0},
                                            {"", 0},
                                            {certs::crlPem(one), 0},
                                            {string(5 << 20, '\n') + both, 0}};
    for (const auto &[text, loaded] : cases) {
        const Context context = certs::clientContext();
        certs::write("/data/in/ca.pem", text);
        EXPECT_EQ(SSL_CTX_load_cacertificate_file(context.get(), "/data\\in\\ca.pem", 1) == 1,
                  loaded > 0);
        const auto *objects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context.get()));
        EXPECT_EQ(sk_X509_OBJECT_num(objects), loaded);
    }
    ASSERT_EQ(mkfifo(native("/data/in/pipe.pem").c_str(), 0600), 0);
    const Context context = certs::clientContext();
    for (const char *path : {"/data/in/pipe.pem", "/data/in", "/data/in/none.pem", "../ca.pem"}) {
        EXPECT_NE(SSL_CTX_load_cacertificate_file(context.get(), path, 1), 1) << path;
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
