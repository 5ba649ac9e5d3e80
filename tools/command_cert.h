/* What the parts of tamoctl cert share. */
#pragma once
#include <span>

#include "tamoctl.h"

namespace tamoctl {

/* Prints what is installed. */
int listCertificates(const Command &command, bool asJson);

struct CertificateSource {
    uint32_t certId;
    const char *chain, *key;
    const char *passphrase, *extra; /* null: none */
    bool inEngine;
};

int installCertificate(const Command &command, const CertificateSource &source);

}  // namespace tamoctl
