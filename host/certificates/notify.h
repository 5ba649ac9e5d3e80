/* The certificate service in this process: its notifications, and the versions that its queries answer
 * from.
 *
 * How it works. tamo_om_cert_client.cpp has the platform's queries; version.* opens what they answer
 * from; layout.h names the files. A process that registers a handler gets one thread, which lives as long
 * as the process: it watches the files (watch.*), tells the handler of each change (notify.cpp) and
 * removes replaced versions once nobody can need them (store.*). install.cpp writes the store. key.*
 * reads keys and certificates; engine/ is the engine's shared object and engine_file.* puts it into the
 * device root.
 *
 * A version that was put in place is held back until the handler has heard of it: the thread of the
 * notifications sees it from the beginning of that call, every other thread from the moment when the
 * handler has asked for its identifier (TamoOmCertGetCertId), or has returned. So a certificate's paths and
 * the identifier that a handler keeps of it change together. Two locks are held for copies alone:
 * one around the versions, one around the start of the thread. */
#pragma once
#include "host/certificates/layout.h"
#include "platform/tamo_om_cert_client.h"

namespace tamo::certificates {

/* Makes `handler` the one that hears of changes, from now on; null: nobody hears. TAMO_HOST_ codes,
 * failures are recorded. */
uint32_t setCertHandler(ConfOmCertHandler handler);

/* Stores the name of the version that the calling thread is to see; false when it is the current one,
 * whichever that is. */
bool visibleVersion(uint32_t certId, char (&name)[kVersionNameSize]);

/* The calling thread has asked for an identifier: if it is the handler's, the version that it was told of
 * is every thread's from now on. */
void showToldVersion();

}  // namespace tamo::certificates
