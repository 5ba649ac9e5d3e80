/* Key management: what is encrypted for an owner comes back for that owner alone. */
#include "tamo_om_keym_client.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tamo_host.h"
#include "tests/support/scratch_root.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kLongest = 203;

std::string encrypt(const std::string &owner, const std::string &plain) {
    char out[312];
    memset(out, 'x', sizeof(out));
    uint32_t length = 0;
    int32_t code = TamoOmKeymEncrypt(owner.c_str(), plain.data(),
                                     static_cast<uint32_t>(plain.size()), out, &length);
    if (code != 0) {
        EXPECT_EQ('\0', out[0]);
        return "failed";
    }
    EXPECT_EQ(strnlen(out, sizeof(out)), length);
    return out;
}

std::string decrypt(const std::string &owner, const std::string &encrypted, uint32_t size = 512) {
    std::vector<char> out(size, 'x');
    uint32_t length = size;
    if (TamoHostKeymDecrypt(owner.c_str(), encrypted.c_str(), out.data(), &length) != 0) {
        EXPECT_EQ(0U, length + static_cast<unsigned char>(out[0]));
        return "failed";
    }
    EXPECT_EQ('\0', out.at(length));
    return {out.data(), length};
}

fs::path keyFile(const std::string &owner) {
    return fs::path(support::scratchRoot()) / "keys" / (owner + ".key");
}

TEST(KeyManagement, WhatWasEncryptedComesBackForItsOwner) {
    for (const std::string &plain :
         {std::string(), std::string("p"), std::string("pa"), std::string("secret \xC3\xA4 %s"),
          std::string(kLongest, 'p'), std::string("a\0b", 3)}) {
        std::string text = encrypt("TamoUIConf", plain);
        EXPECT_LT(text.size(), 312U);
        for (char c : text) {
            EXPECT_TRUE(c > ' ' && c < 0x7F);
        }
        EXPECT_TRUE(plain.size() < 3 || text.find(plain) == std::string::npos);
        EXPECT_EQ(plain, decrypt("TamoUIConf", text));
        EXPECT_NE(text, encrypt("TamoUIConf", plain));
    }
    EXPECT_EQ("failed", encrypt("TamoUIConf", std::string(kLongest + 1, 'p')));
    EXPECT_EQ("failed", encrypt("TamoUIConf", std::string(1023, 'p')));
}

TEST(KeyManagement, RefusesWhatItDidNotMakeForThisOwner) {
    std::string text = encrypt("owner", "secret");
    ASSERT_EQ("secret", decrypt("owner", text));
    encrypt("other", "a key of its own");
    EXPECT_EQ("failed", decrypt("other", text));
    EXPECT_EQ("failed", decrypt("nobody", text)) << "no key is made to decrypt with";
    EXPECT_FALSE(fs::exists(keyFile("nobody")));
    fs::copy_file(keyFile("owner"), keyFile("copied"));
    EXPECT_EQ("failed", decrypt("copied", text)) << "the owner is bound to the text";
    for (size_t at = 0; at < text.size(); at++) {
        std::string altered = text;
        altered[at] = altered[at] == 'A' ? 'B' : 'A';
        EXPECT_EQ("failed", decrypt("owner", altered)) << at;
        EXPECT_EQ("failed", decrypt("owner", text.substr(0, at))) << at;
    }
    for (const std::string &foreign : {text + "A", text + "====", " " + text, text + "\n",
                                       std::string(2000, 'A'), std::string("k1:===")}) {
        EXPECT_EQ("failed", decrypt("owner", foreign)) << foreign;
    }
    EXPECT_EQ(0UL, ERR_peek_error()) << "nothing is left for TLS code to find";
}

TEST(KeyManagement, RefusesInvalidArguments) {
    char out[312] = "x";
    uint32_t length = sizeof(out);
    const std::string longest(63, 'o');
    EXPECT_NE("failed", encrypt(longest, "secret"));
    const struct {
        std::string owner;
        const char *plain;
        uint32_t size;
        char *out;
        uint32_t *length;
    } refused[] = {{"", "secret", 6, out, &length},
                   {"../owner", "secret", 6, out, &length},
                   {longest + "o", "secret", 6, out, &length},
                   {"owner", nullptr, 6, out, &length},
                   {"owner", "secret", UINT32_MAX, out, &length},
                   {"owner", "secret", 6, nullptr, &length},
                   {"owner", "secret", 6, out, nullptr}};
    for (const auto &[owner, plain, size, to, toLength] : refused) {
        EXPECT_NE(0, TamoOmKeymEncrypt(owner.c_str(), plain, size, to, toLength)) << owner;
    }
    EXPECT_NE(0, TamoOmKeymEncrypt(nullptr, "secret", 6, out, &length));
    EXPECT_NE(0U, TamoHostKeymDecrypt("../owner", "k1:", out, &length));
    EXPECT_NE(0U, TamoHostKeymDecrypt("owner", nullptr, out, &length));
    const std::string text = encrypt("owner", "secret");
    EXPECT_EQ("secret", decrypt("owner", text, 7));
    EXPECT_EQ("failed", decrypt("owner", text, 6));
}

TEST(KeyManagement, KeyFileIsPrivateAndRefusedWhenItIsNot) {
    std::string text = encrypt("file", "secret");
    struct stat status;
    ASSERT_EQ(0, stat(keyFile("file").c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    EXPECT_EQ(32, status.st_size);

    ASSERT_EQ(0, chmod(keyFile("file").c_str(), 0640));
    testing::internal::CaptureStderr();
    EXPECT_EQ("failed", encrypt("file", "secret"));
    EXPECT_EQ("failed", decrypt("file", text));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("chmod 600"));
    ASSERT_EQ(0, chmod(keyFile("file").c_str(), 0600));
    EXPECT_EQ("secret", decrypt("file", text));

    fs::resize_file(keyFile("file"), 31);
    EXPECT_EQ("failed", encrypt("file", "secret"));
    EXPECT_EQ(31U, fs::file_size(keyFile("file"))) << "the key is left as it was";
    fs::remove(keyFile("file"));
    fs::create_symlink(keyFile("other"), keyFile("file"));
    EXPECT_EQ("failed", encrypt("file", "secret"));
}

}  // namespace
