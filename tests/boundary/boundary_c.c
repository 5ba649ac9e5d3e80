/* The exported boundary as a plain C program uses it: each function once. A second thread serves the
 * queue that the first one sends to. */
#include <conf_cert.h>
#include <conf_config.h>
#include <conf_config_value.h>
#include <conf_digest.h>
#include <conf_log_adapter.h>
#include <conf_mask_keyword.h>
#include <conf_msg_api.h>
#include <conf_network_utils.h>
#include <conf_timer.h>
#include <param_check.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <tamo_host.h>
#include <tamo_os_mem.h>
#include <xmlAdapter.h>

/* The line of the first check that failed; 0 as long as none has. */
static int failedLine;

static void check(bool passed, int line) {
    if (!passed && failedLine == 0) {
        failedLine = line;
    }
}

#define CHECK(condition) check(condition, __LINE__)

#define KEY "Conf.Boundary.number"
#define QUEUE "Boundary"
#define MESSAGES 3
#define TIMEOUT 20000

static void checkLog(void) {
    CHECK(ConfLogInit() == 0);
    (void)GetConfLogFileId();
    CHECK(SetLogLevel(5) != 0);
    CHECK(SetLogLevel(CONF_LOG_DEBUG) == 0);
    CHECK(GetLogLevel() == CONF_LOG_DEBUG);
    ConfLogPrintf(CONF_LOG_DEBUG, __func__, "boundary_c", __LINE__, "%s %d", "number", 1);
    ConfLogPrintfStr(CONF_LOG_INFO, __func__, "boundary_c", __LINE__, "a text");
    ConfLogSegmentPrint(__FILE__, __LINE__, CONF_LOG_INFO, "bytes", 5);
}

static void checkTexts(void) {
    char text[] = " trimmed ";
    CHECK(ConfParamCheckContainValidChar("0123", 1) == 0);
    CHECK(ConfParamCheckValidIp("fe80::1") == 0);
    CHECK(ConfParamCheckIpType("10.1.2.3") == 2);
    CHECK(ConfParamGetCharNum("\xc3\xa4o", 3) == 2);
    CHECK(ConfGetAtoi("0x10", -1) == 16);
    ConfTrim(text);
    CHECK(strcmp(text, "trimmed") == 0);
}

static uintptr_t add(uintptr_t a, uintptr_t b, uintptr_t c) {
    return a + b + c;
}

static void checkMasks(void) {
    char shown[CONF_MASK_SIZE], line[] = "tel:5550123>", *masked = NULL;
    uint32_t length = 0;
    CHECK(ConfFilterStr("abcdef", shown, sizeof(shown)) == 0 && strcmp(shown, "a***ef") == 0);
    CHECK(ConfFilterIPAddrStr("1.2.3.4", shown, sizeof(shown)) == 0);
    ConfFilterNonSecurityWordEx(line, "tel:", ">");
    ConfFilterNonSecurityWordExImpl(line, line + 4);
    CHECK(strcmp(line, "te*:55***23>") == 0);
    CHECK(ConfFilterSetIPStr("1.2.3.4") == 0);
    CHECK(ConfReplaceIPAddrStr("1.2.3.4", &masked, &length) == 0 && strcmp(masked, shown) == 0);
    CHECK(OSMemTypeFreeMon(masked, 0, 0, __LINE__, "boundary_c") == 0);
    CHECK(ConfFilterCallFilterFn(add, 1, 2, 3) == 6);
}

static void checkValues(void) {
    ConfConfigValue value;
    char text[16];
    CHECK(ConfConfigInt2V(&value, -1) == 0 && ConfConfigV2Int(&value) == -1);
    CHECK(ConfConfigUInt2V(&value, 7) == 0 && ConfConfigV2UInt(&value) == 7);
    CHECK(ConfConfigFloat2V(&value, 1.5) == 0 && ConfConfigV2Float(&value) == 1.5);
    CHECK(ConfConfigBool2V(&value, 9) == 0 && ConfConfigV2Bool(&value) == 1);
    CHECK(ConfConfigV2Str(&value, text, sizeof(text)) == 0 && ConfConfigStrEqual(text, "true"));
    CHECK(ConfConfigData2V(&value, "ab", 3) == 0);
    CHECK(ConfConfigV2Data(&value, text, sizeof(text)) == 0 && strcmp(text, "ab") == 0);
    CHECK(ConfConfigStr2V(&value, "cd") == 0);
    CHECK(ConfConfigV2DByType(&value, text, sizeof(text), CONF_VALUE_STR) == 0);
    CHECK(ConfConfigD2VByType(&value, text, sizeof(text), CONF_VALUE_STR) == 0);
    CHECK(strcmp(value.payload.str.text, "cd") == 0);
}

static void checkDigests(void) {
    unsigned char whole[CONF_DIGEST_LONGEST], pieces[CONF_DIGEST_LONGEST];
    unsigned int length = 0;
    void *context = NULL;
    CHECK(MOX_CRYPT_digest(CONF_DIGEST_MD5, "abc", 3, whole, &length) == 1 && length == 16);
    CHECK(MOX_CRYPT_digestInit(&context, CONF_DIGEST_MD5) == 1);
    CHECK(MOX_CRYPT_digestUpdate(context, "abc", 3) == 1);
    CHECK(MOX_CRYPT_digestFinal(&context, pieces, NULL) == 1 && context == NULL);
    CHECK(memcmp(whole, pieces, length) == 0);
}

static void checkProcessValues(void) {
    SetOmsConfType(3);
    CHECK(GetOmsConfType() == 3);
    CHECK(ConfReportToTellum() == 0 && ConfReportAddrBookToTellum() == 0);
    CHECK(ConfReportRegisterToTellum() == 0 && ConfReportCallErrToTellum() == 0);
}

static void checkNetwork(void) {
    char local[46] = "";
    CHECK(GetBestLocalIpByDestIp("no address", local, sizeof(local)) == 1);
    CHECK(GetBestLocalIpByDestIp("127.0.0.1", local, sizeof(local)) == 0);
    CHECK(strcmp(local, "127.0.0.1") == 0);
}

static int32_t boundNumber;

static void bindItems(void) {
    ConfConfigBind(KEY, CONF_VALUE_INT, &boundNumber, sizeof(boundNumber), NULL);
}

static void checkSync(void) {
    const ConfConfigListItem list[] = {{KEY, "4712"}};
    const char *const keys[] = {KEY, "Conf.Boundary."};
    ConfConfigInitOmCfg();
    CHECK(boundNumber == 4711);
    CHECK(ConfConfigSetList(list, 1, 1) == 1 && ConfConfigGetIntValue(KEY) == 4712);
    boundNumber = 4713;
    CHECK(ConfConfigSyncToOM(keys, 2) == 0 && ConfConfigGetIntValue(KEY) == 4713);
    CHECK(ConfConfigSyncByKeyToOM("Nobody") == -1 && ConfConfigSyncOmCfg(NULL) == -1);
}

static void checkConfig(void) {
    uint64_t number = 0;
    CHECK(ConfConfigInit(bindItems, "Boundary", "Conf") == 0);
    CHECK(ConfConfigReInit() == 0);
    CHECK(ConfConfigSetUint64Value(KEY, 4711) == 0);
    CHECK(ConfConfigGetUint64Value(KEY, &number) == 0 && number == 4711);
    CHECK(ConfConfigGetIntValue(KEY) == 4711);
    CHECK(SetEnableEofb(0) == 0 && GetEnableEofb() == 0);
    CHECK(SetSipPreventAttack(0) == 0 && GetSipPreventAttack() == 0);
    checkSync();
    ConfConfigClientCallBack(65536, 0, 0, NULL);
}

static void checkSwitches(void) {
    char text[42] = "";
    CHECK(ConfConfigXmlInit() == 1 && ConfConfigXmlInit() == 0);
    CHECK(ConfConfigGetValueByName("ignoreLayoutStrategy", text, sizeof(text)) == 1);
    CHECK(IsCloseWirelessCast() + IsStopCastWhenConfEnd() + IsForbiddenSdkStopWirelessCast() +
              OnlyReportPresentationDevicePlug() + IgnoreLayoutStrategy() ==
          0);
    CHECK(ConfConfigSetLocalIp(0, "192.0.2.7") == 0 && ConfConfigSetLocalIp(1, "::7") == 0);
    CHECK(ConfConfigGetLocalIpv4(0, text) == 0 && strcmp(text, "192.0.2.7") == 0);
    CHECK(ConfConfigGetLocalIpv6(0, text) == 0 && memcmp(text, "::7", 3) == 0);
}

static uint32_t notifications;

static uint32_t count(uint32_t notifyId, const void *data, uint32_t dataLength, uint32_t result) {
    (void)data;
    notifications += notifyId + dataLength + result;
    return 9;
}

static void checkNotifications(void) {
    ConfRegisterNotifyFunc(count);
    CHECK(ConfCommSendNotifyToApp(1, "x", 1) == 9);
    CHECK(ConfCommSendNotifyAndResultToApp(1, "x", 1, 5) == 9);
    CHECK(notifications == 9);
    CHECK(ConfCommSendMultiPackNotifyToApp(1, "four", 4) == 0);
    CHECK(notifications > 9);
}

/* A handler: doubles the number that came. */
static uint32_t twice(uint32_t param, void *data, uint32_t dataLength) {
    uint32_t number;
    if (dataLength == sizeof(number)) {
        memcpy(&number, data, sizeof(number));
        number *= 2;
        memcpy(data, &number, sizeof(number));
    }
    return param;
}

static void *serve(void *context) {
    TamoHostQueue *queue = context;
    OsMsgHeader *message;
    for (int i = 0; i < MESSAGES; ++i) {
        if (TamoHostMsgReceive(queue, &message, TIMEOUT) == TAMO_HOST_OK) {
            ConfCommMsgProcess(message);
            TamoHostMsgFree(message);
        }
    }
    return NULL;
}

/* A list request: one key, whose value comes back in a list of its own. */
static void requestList(void) {
    ConfConfigListItem item = {KEY, "4712"};
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(&item, sizeof(item));
    const uint32_t size = GetMeetingServerMsgBlockSize(block);
    CHECK(size == sizeof(item) + 83);
    if (block == NULL) {
        return;
    }
    block->itemCount = 1;
    CHECK(ConfConfigSetConfConfig(0, block, size) == 0);
    CHECK(ConfCommMsgSynSendImplHaveResp(QUEUE, ConfConfigGetConfConfig, 0, block, size, TIMEOUT) ==
          0);
    const ConfConfigListItem *list = block->resultList;
    CHECK(list != NULL && strcmp(list->value, "4712") == 0);
    CHECK(OSMemTypeFreeMon(block->resultList, 0, 0, __LINE__, "boundary_c") == 0);
    CHECK(OSMemTypeFreeMon(block, 0, 0, __LINE__, "boundary_c") == 0);
}

static void sendMessages(void) {
    uint32_t number = 21;
    CHECK(ConfCommMsgCheckPermission());
    CHECK(ConfCommMsgAsynSend(QUEUE, twice, 0, &number, sizeof(number)) == 0);
    CHECK(ConfCommMsgSynSend(QUEUE, twice, 5, &number, sizeof(number)) == 5);
    CHECK(number == 42);
    CHECK(ConfCommMsgSynSendImpl("Nobody", twice, 5, &number, sizeof(number), 1) ==
          CONF_COMM_ERR_FAILED);
    requestList();
}

static void checkMessages(void) {
    TamoHostQueue *queue = NULL;
    pthread_t server;
    CHECK(ConfCommMsgProcess(NULL) != 0);
    CHECK(TamoHostMsgOpen(QUEUE, &queue) == TAMO_HOST_OK);
    if (queue == NULL || pthread_create(&server, NULL, serve, queue) != 0) {
        return;
    }
    sendMessages();
    pthread_join(server, NULL);
    TamoHostMsgClose(queue);
}

static void checkTimers(void) {
    static ConfCommTimerEntry table[] = {{1, CONF_TIMER_ONE_SHOT, 60000, QUEUE, twice, 0, 0, 0, 0}};
    ConfTimer timer = {0};
    ConfSysTime now;
    CHECK(ConfCommTimerFuncInit(NULL, 1) == 1);
    CHECK(ConfCommTimerInit(NULL, 1) == 1);
    CHECK(ConfCommTimerFuncInit(table, 1) == 0);
    CHECK(ConfCommTimerStart(1, 0, "x", 1) == 0);
    CHECK(ConfCommTimerStartEx(1, 1000, 0, NULL, 0) == 0);
    CHECK(ConfCommTimerStop(1) == 0 && ConfCommTimerFree(1) == 0);
    CHECK(ConfTimerInit(&timer, 1, 0, QUEUE, twice) == 0);
    CHECK(ConfTimerStart(&timer, 60000, 0, "x", 1) == 0 && ConfTimerIsVaild(&timer));
    CHECK(ConfTimerStop(&timer) == 0 && ConfTimerFree(&timer) == 0);
    ConfBasicGetSysTime(&now);
    CHECK(now.month >= 1 && now.month <= 12 && ConfGetSysTimeSec() != 0);
    ConfCommTimerFuncDeInit();
    CHECK(ConfCommTimerInit(table, 1) == 0);
    ConfCommTimerDeInit();
}

static void checkXmlDocument(ConfXmlNode *root) {
    const int8_t number = 7;
    ConfXmlNode *last = ConfXmlCreateLastChildNode(root, "last");
    ConfXmlNode *first = ConfXmlCreateFirstChildNode(root, "first");
    CHECK(ConfXmlAddAttr(first, "n", CONF_XML_TEXT, "7") == CONF_XML_OK);
    CHECK(ConfXmlSetNodeText(first, CONF_XML_INT8, &number) == CONF_XML_OK);
    CHECK(ConfXmlGetNodeChildNum(root) == 2 && ConfXmlGetNodeFirstChild(root) == first);
    CHECK(ConfXmlGetNodeNextSibling(first) == last && ConfXmlGetNodeIterator(first) == last);
    CHECK(ConfXmlGetNodeByPath(root, "last") == last && ConfXmlGetNodeParenet(last) == root);
    CHECK(ConfXmlGetRootNode(last) == root && ConfXmlIsRootNode(root));
    CHECK(strcmp(ConfXmlGetNodeName(first), "first") == 0);
    CHECK(strcmp(ConfXmlGetNodeText(first), "7") == 0 && ConfXmlGetNodeIntText(first) == 7);
    CHECK(strcmp(ConfXmlGetNodeStrAttr(first, "n"), "7") == 0);
    CHECK(ConfXmlGetNodeIntAttr(first, "n") == 7 && ConfXmlGetNodeUintAttr(first, "n") == 7);
    CHECK(ConfXmlDeleteAttr(first, "n") == CONF_XML_OK);
    CHECK(strcmp(ConfXmlTransformStr(root), "<r><first>7</first><last/></r>") == 0);
}

static void checkXml(void) {
    ConfXmlNode *root = ConfXmlCreateRootNode("r");
    CHECK(root != NULL);
    if (root != NULL) {
        checkXmlDocument(root);
        CHECK(ConfXmlTransformFile(root, "\\data\\boundary.xml") == CONF_XML_OK);
        ConfXmlFreeRootNode(root);
    }
    root = ConfXmlParseFileGetRoot("/data/boundary.xml");
    CHECK(root != NULL);
    ConfXmlFreeRootNode(root);
    root = ConfXmlParseBodyGetRoot("<r/>");
    CHECK(root != NULL);
    ConfXmlFreeRootNode(root);
}

static void checkCertificates(void) {
    char path[CONF_CERT_PATH_SIZE];
    ConfCaCertEntry table[CONF_CERT_MAX_CA_FILES];
    ConfGmSrvCertInfo info;
    uint32_t count = 0;
    ConfCertInit(NULL);
    ConfCertNotifyCallback(NULL);
    ConfCertUpdateNotifyCallback(NULL);
    CHECK(ConfCertGetCaPath(path, sizeof(path)) == 0 && ConfCertGetCrlPath(path, 1) == 1);
    ConfCertGetAddrCaPath(path);
    CHECK(path[0] == '/');
    CHECK(ConfCertGetSrvCertFilePath(9, path, sizeof(path)) == -1);
    CHECK(ConfLoadServerCert(NULL, 9) == -1 && ConfCertGetGmSrvCertInfo(9, &info) == -1);
    CHECK(ConfCertGetCaCertList(NULL, &count) == -1);
    CHECK(ConfCertLoadAllCaCert(NULL, table, 0) == 0);
    ConfCertLoadOneCaCert(NULL, "/data/none.pem", 1);
    CHECK(ConfAddCancelCrlToSslctx(NULL) == 1);
}

static void end(void) {
    CHECK(ConfConfigDeInit() == 0);
    CHECK(ConfConfigUnInit() == 0);
    CHECK(ConfLogUnInit() == 0);
}

/* 0, or the line of the first check that failed. */
int boundaryFromC(void) {
    checkLog();
    checkTexts();
    checkMasks();
    checkValues();
    checkDigests();
    checkProcessValues();
    checkNetwork();
    checkConfig();
    checkSwitches();
    checkNotifications();
    checkMessages();
    checkTimers();
    checkXml();
    checkCertificates();
    end();
    return failedLine;
}
