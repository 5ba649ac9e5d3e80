/* The assertions of record_layout.h in C++, and those of the library's own records. */
#include "tests/boundary/record_layout.h"

#include <conf_json.h>

#include "config/config_index.h"
#include "msg/message_format.h"

AT(ConfMsgBody, handler, 0, 0);
AT(ConfMsgBody, result, 4, 8);
AT(ConfMsgBody, param, 8, 12);
AT(ConfMsgBody, dataLength, 12, 16);
SIZE(ConfMsgBody, 16, 24);

AT(ConfConfigIndexEntry, type, 128, 128);
AT(ConfConfigIndexEntry, value, 132, 136);
AT(ConfConfigIndexEntry, size, 136, 144);
AT(ConfConfigIndexEntry, localOnly, 140, 148);
AT(ConfConfigIndexEntry, callback, 144, 152);
SIZE(ConfConfigIndexEntry, 148, 160);

AT(ConfJsonItem, key, 4, 8);
AT(ConfJsonItem, value, 8, 16);
SIZE(ConfJsonItem, 16, 24);
