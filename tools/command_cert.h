/* What tamoctl cert tells the other commands about certificates. */
#pragma once
#include "tamoctl.h"

namespace tamoctl {

/* Reports a finding: its area, what it is about, what is wrong and what to do. */
using FindingFunction = std::function<void(const char *area, const std::string &subject,
                                           const std::string &problem, const std::string &advice)>;

/* The names of what is installed of a kind: server, ca or crl. */
std::vector<std::string> certificateNames(const std::string &kind);

/* Reports what is wrong with the certificates, keys and revocation lists that are installed. */
void examineCertificates(const Command &command, const FindingFunction &report);

}  // namespace tamoctl
