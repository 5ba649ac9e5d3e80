/* See cert_administrator.h. */
#include "cert_administrator.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include "platform/tamo_om_cert_client.h"
#include "tests/support/scratch_root.h"

using std::string;

string native(const string &devicePath) {
    return support::scratchRoot() + devicePath;
}

Outcome install(const string &id, const certs::Party &party, const Words &options,
                const string &phrase) {
    certs::write("/data/in/chain.pem", certs::pem(party));
    certs::write("/data/in/key.pem", certs::keyPem(party, phrase));
    Words words = {"cert", "install"};
    words.insert(words.end(), options.begin(), options.end());
    if (!phrase.empty()) {
        certs::write("/data/in/phrase", phrase + "\n");
        words.insert(words.end(), {"--passphrase", native("/data/in/phrase")});
    }
    words.insert(words.end(), {id, native("/data/in/chain.pem"), native("/data/in/key.pem")});
    return tamoctl(words);
}

void removeAll() {
    certs::remove("/data/in");
    certs::write("/data/in/x", "");
    (void)rename(native("/data/certfile").c_str(), native("/data/in/certfile").c_str());
    ASSERT_EQ(TamoOmCertClientInit(nullptr), 0);
}
