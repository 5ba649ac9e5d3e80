/* A small user of the installed library in C: logs one record, sends to nobody, and connects to the
 * certificate service. */
#include <conf_cert.h>
#include <conf_log_adapter.h>
#include <conf_msg_api.h>
#include <param_check.h>
#include <stdio.h>

static uint32_t handler(uint32_t param, void *data, uint32_t dataLength) {
    (void)data;
    return param + dataLength;
}

int main(void) {
    if (ConfLogInit() != 0 || ConfParamCheckValidIp("10.0.0.1") != 0) {
        return 1;
    }
    ConfLogPrintf(CONF_LOG_INFO, __func__, "consumer", __LINE__, "from %s", "C");
    if (ConfCommMsgAsynSend("Nobody", handler, 1, NULL, 0) != CONF_COMM_ERR_FAILED) {
        return 2;
    }
    ConfCertInit(NULL);
    puts("consumer: ok");
    return ConfLogUnInit();
}
