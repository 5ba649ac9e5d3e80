/* tamoctl cert: what it installs, shows, removes, keeps and refuses. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "platform/tamo_om_cert_client.h"
#include "tests/process/cert_administrator.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

using std::string;

TEST(TamoctlCert, RefusesWhatDoesNotWork) {
    const certs::Party one = certs::makeParty("One", "RSA"), two = certs::makeParty("Two", "RSA");
    removeAll();
    certs::write("/data/in/one.pem", certs::pem(one));
    certs::write("/data/in/two.key", certs::keyPem(two));
    certs::write("/data/in/locked.key", certs::keyPem(one, "secret"));
    certs::write("/data/in/wrong", "wrong");
    certs::write("/data/in/sub/one.crt", certs::pem(two));
    certs::write("/data/in/huge.pem", "");
    std::filesystem::resize_file(native("/data/in/huge.pem"), 100 << 20);
    const string in = native("/data/in/");
    tryAll({{{"install", "263", in + "one.pem", in + "two.key"}, 1, "does not belong"},
            {{"install", "263", in + "one.pem", in + "locked.key"}, 1, "--passphrase"},
            {{"install", "--passphrase", in + "wrong", "263", in + "one.pem", in + "locked.key"},
             1,
             "does not open"},
            {{"install", "--passphrase", in + "none", "263", in + "one.pem", in + "locked.key"},
             1,
             "none' cannot be read: No such file"},
            {{"install", "263", in + "two.key", in + "two.key"}, 1, "no certificate in PEM"},
            {{"install", "263", in + "huge.pem", in + "two.key"}, 1, "more than 1 MiB"},
            {{"install", "263", in + "none", in + "two.key"}, 1, "cannot be read"},
            {{"install", "256", in + "one.pem", in + "two.key"}, 2, "257 to 266"},
            {{"install", "--extra", in + "wrong", "263", in + "one.pem", in + "two.key"}, 1, "259"},
            {{"install", "--json", "263", in + "one.pem", in + "two.key"}, 2, "option"},
            {{"remove", "263"}, 1, "not installed"},
            {{"ca", "install", in + "two.key"}, 1, "no certificate"},
            {{"crl", "install", in + "one.pem"}, 1, "no revocation list"},
            {{"ca", "install", in + "one.pem", in + "sub/one.crt"},
             1,
             "both be installed as 'one.pem'"},
            {{"ca", "install", in + "one.pem", in + "two.key"}, 1, "no certificate"},
            {{"ca", "remove", "../server"}, 1, "cert list"},
            {{"ca"}, 2, "'cert ca install'"},
            {{}, 2, "--help"}},
           {"cert"});
    EXPECT_EQ(tamoctl({"cert", "list"}).output, "");
    for (const char *directory :
         {"/data/certfile/server", "/data/certfile/CA", "/data/certfile/.new"}) {
        EXPECT_EQ(certs::list(directory), Words{}) << "nothing is left in " << directory;
    }
}

/* What others read never holds a name that was not asked for. */
TEST(TamoctlCert, SeveralFilesAreInstalledTogetherOrNotAtAll) {
    const certs::Party one = certs::makeParty("One", "EC"), two = certs::makeParty("Two", "EC");
    removeAll();
    const string ca = "/data/certfile/CA/", in = native("/data/in/");
    certs::write("/data/in/a.pem", certs::pem(one));
    certs::write("/data/in/b.pem", certs::pem(one));
    certs::write("/data/in/c.pem", certs::pem(one));
    certs::write(ca + "b.pem", certs::pem(two));
    std::filesystem::create_directory(native(ca + "c.pem"));
    const int events = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    inotify_add_watch(events, native(ca).c_str(), IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM);
    const Words all = {"cert", "ca", "install", in + "a.pem", in + "b.pem", in + "c.pem"};
    EXPECT_EQ(tamoctl(all).code, 1) << "a directory is in the way of the third";
    EXPECT_EQ(certs::list(ca), (Words{"b.pem", "c.pem"}));
    EXPECT_EQ(certs::read(ca + "b.pem"), certs::pem(two));
    certs::remove(ca + "c.pem");
    EXPECT_EQ(tamoctl(all).output, "installed a.pem\ninstalled b.pem\ninstalled c.pem\n");
    EXPECT_EQ(certs::read(ca + "b.pem"), certs::pem(one));
    EXPECT_EQ(tamoctl({"cert", "ca", "remove", "a.pem", "none.pem"}).code, 1);
    EXPECT_EQ(certs::list(ca), (Words{"a.pem", "b.pem", "c.pem"}));

    alignas(inotify_event) char buffer[8192];
    std::set<string> names;
    const ssize_t length = read(events, buffer, sizeof(buffer));
    for (ssize_t at = 0; at < length;) {
        const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
        names.insert(event->name);
        at += static_cast<ssize_t>(sizeof(*event) + event->len);
    }
    close(events);
    EXPECT_EQ(names, (std::set<string>{"a.pem", "b.pem", "c.pem"})) << "no temporary file";
}

const support::ChildRole user("user", [](const support::ChildArguments &) {
    const bool good = TamoOmCertClientInit(nullptr) == 0 &&
                      TamoOmCertNotifyCallback([](uint32_t, uint32_t) {}) == 0;
    support::tellParent(good ? "using" : "failed");
    support::hearParent();
    return 0;
});

using Kept = std::pair<size_t, size_t>;

/* Versions of a server certificate, and keys of the engine. */
Kept kept(const string &root = "") {
    return {certs::list(root + "/data/certfile/server").size() - 1,
            certs::list(root + "/keys").size()};
}

TEST(TamoctlCert, AReplacedKeyIsGoneOnceNobodyCanNeedIt) {
    removeAll();
    const auto replace = [](const char *name, const Words &options) {
        ASSERT_EQ(install("263", certs::makeParty(name, "EC"), options, "secret").code, 0);
    };
    ASSERT_EQ(mkdir(native("/own").c_str(), 0700), 0);
    replace("First", {"--engine", "--root", native("/own")});
    replace("Second", {"--engine", "--root", native("/own")});
    EXPECT_EQ(kept("/own"), Kept(1, 1)) << "no program uses the service";

    replace("Second", {"--engine"});
    support::ChildProcess first("user");
    ASSERT_EQ(first.hear(), "using");
    replace("Third", {});
    EXPECT_EQ(kept(), Kept(2, 1)) << "a program may have been told its paths";
    const string listed = tamoctl({"cert", "list"}).output;
    EXPECT_NE(listed.find("replaced\t263\tCN=Second\t"), string::npos) << listed;
    EXPECT_NE(listed.find(", in the engine, kept until 2"), string::npos) << listed;
    EXPECT_NE(tamoctl({"cert", "list", "--json"}).output.find("\"keptUntil\":\"2"), string::npos);

    const string current = std::filesystem::read_symlink(native("/data/certfile/server/263"));
    for (const string &name : certs::list("/data/certfile/server")) {
        if (name != "263" && name != current) {
            const timespec tenMinutesAgo[2] = {{time(nullptr) - 601, 0}, {time(nullptr) - 601, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, native("/data/certfile/server/" + name).c_str(),
                                tenMinutesAgo, 0),
                      0);
        }
    }
    support::ChildProcess second("user");
    ASSERT_EQ(second.hear(), "using");
    EXPECT_EQ(kept(), Kept(1, 0)) << "its time has come";
}

TEST(TamoctlCert, InstallsListsAndRemoves) {
    const certs::Party root = certs::makeParty("Root", "EC");
    const certs::Party party = certs::makeParty("Saal ü", "RSA", &root, 2);
    removeAll();
    certs::write("/data/in/root.crt", certs::pem(root));
    certs::write("/data/in/revoked.pem", certs::crlPem(root));
    ASSERT_EQ(install("263", party, {"--engine"}, "secret").code, 0);
    ASSERT_EQ(tamoctl({"cert", "ca", "install", native("/data/in/root.crt")}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "crl", "install", native("/data/in/revoked.pem")}).output,
              "installed revoked_crl.pem\n");
    EXPECT_EQ(certs::list("/data/certfile/CA"), Words{"root.pem"});
    EXPECT_EQ(certs::list("/data/certfile/CRL"), Words{"revoked_crl.pem"});

    const string listed = tamoctl({"cert", "list"}).output;
    EXPECT_EQ(listed.find("server\t263\tCN=Saal ü\tCN=Root\t"), 0U) << listed;
    EXPECT_NE(listed.find("\tRSA 2048, in the engine\nca\troot.pem\tCN=Root\t"), string::npos);
    EXPECT_NE(listed.find("crl\trevoked_crl.pem\t\tCN=Root\t"), string::npos) << listed;
    const string json = tamoctl({"cert", "list", "--json"}).output;
    EXPECT_NE(json.find("\"daysLeft\":36"), string::npos) << json;
    EXPECT_NE(json.find("\"inEngine\":true"), string::npos) << json;
    ASSERT_EQ(install("264", certs::makeParty("Ed", "ED25519")).code, 0);
    EXPECT_NE(tamoctl({"cert", "list"}).output.find("\tED25519\n"), string::npos);
    EXPECT_EQ(tamoctl({"cert", "remove", "264"}).code, 0);

    EXPECT_EQ(tamoctl({"cert", "remove", "263"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "ca", "remove", "root.pem"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "crl", "remove", "revoked_crl.pem"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "list"}).output, "");
    EXPECT_EQ(certs::list("/data/certfile/server"), Words{});
    EXPECT_EQ(certs::list("/keys"), Words{}) << "nor a key of the engine";
}

TEST(TamoctlCert, TheDoctorFindsAKeyOfAnother) {
    removeAll();
    ASSERT_EQ(install("263", certs::makeParty("One", "EC"), {}).code, 0);
    EXPECT_EQ(tamoctl({"doctor"}).output.find("certificate"), string::npos);
    certs::write("/data/certfile/server/263/key.pem", certs::keyPem(certs::makeParty("Two", "EC")));
    const Outcome outcome = tamoctl({"doctor"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output.find("nothing is wrong"), string::npos);
    EXPECT_NE(outcome.output.find("server 263: its key does not belong"), string::npos)
        << outcome.output;
    removeAll();
}

TEST(TamoctlCert, ADirectoryThatCannotBeMadeIsToldAndNothingIsInstalled) {
    const support::ScratchDirectory root;
    ASSERT_EQ(mkdir((root.path() + "/data").c_str(), 0700), 0);
    std::ofstream(root.path() + "/data/certfile") << "in the way";
    certs::write("/data/in/ca.pem", certs::pem(certs::makeParty("Root", "EC")));
    const Outcome outcome =
        tamoctl({"--root", root.path(), "cert", "ca", "install", native("/data/in/ca.pem")});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.errors.find("nothing was installed"), string::npos) << outcome.errors;
    EXPECT_TRUE(std::filesystem::is_regular_file(root.path() + "/data/certfile"));
}

}  // namespace
