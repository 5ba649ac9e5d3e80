/* The certificate service's notifications in this process. */
#pragma once
#include "tamo_om_cert_client.h"

namespace tamo {

/* Makes `handler` the one that hears of changes, from now on; null: nobody hears. TAMO_HOST_ codes,
 * failures are recorded. */
uint32_t setCertHandler(ConfOmCertHandler handler);

}  // namespace tamo
