/* Where the fields of the records lie that cross the boundary or travel between processes. Valid C11
 * and C++, compiled as both, in both pointer widths. With 32-bit pointers the offsets are the
 * terminal's; with 64-bit ones a pointer widens in place, or into unused words beside it. */
#pragma once
#include <assert.h>
#include <conf_config.h>
#include <conf_msg_api.h>
#include <ip_helper.h>
#include <stddef.h>
#include <tamo_om_config_client.h>
#include <tamo_om_log_client.h>
#include <tamo_os_lock.h>
#include <tamo_os_msg.h>

#define AT(record, field, narrow, wide) \
    static_assert(offsetof(record, field) == (sizeof(void *) == 4 ? (narrow) : (wide)), #field)
#define SIZE(record, narrow, wide) \
    static_assert(sizeof(record) == (sizeof(void *) == 4 ? (narrow) : (wide)), #record)

AT(OsMsgHeader, syncFlag, 0, 0);
AT(OsMsgHeader, msgId, 48, 48);
AT(OsMsgHeader, sender, 56, 56);
AT(OsMsgHeader, receiver, 72, 72);
AT(OsMsgHeader, bodyLength, 156, 156);
AT(OsMsgHeader, body, 160, 160);
SIZE(OsMsgHeader, 164, 168);

AT(MeetingServerMsgBlock, requestWord, 0, 0);
AT(MeetingServerMsgBlock, itemCount, 4, 4);
AT(MeetingServerMsgBlock, requestWords, 8, 8);
AT(MeetingServerMsgBlock, resultList, 68, 64);
AT(MeetingServerMsgBlock, resultSize, 72, 72);
AT(MeetingServerMsgBlock, bodyLength, 76, 76);
AT(MeetingServerMsgBlock, body, 80, 80);

AT(ConfConfigListItem, value, 128, 128);
SIZE(ConfConfigListItem, 1152, 1152);

AT(ConfConfigOmKey, length, 128, 128);
SIZE(ConfConfigOmKey, 132, 132);
AT(ConfConfigOmVal, length, 1024, 1024);
SIZE(ConfConfigOmVal, 1028, 1028);
AT(ConfConfigOmRecord, value, 132, 132);
SIZE(ConfConfigOmRecord, 1160, 1160);
AT(ConfConfigChangeItem, value, 132, 136);
SIZE(ConfConfigChangeItem, 136, 144);
AT(ConfConfigChangeList, items, 4, 8);
SIZE(ConfConfigChangeList, 8, 16);

AT(OmLogCreateParam, fileCount, 4, 4);
AT(OmLogCreateParam, fileSize, 8, 8);
AT(OmLogCreateParam, name, 12, 12);
SIZE(OmLogCreateParam, 44, 44);

SIZE(IpForwardRow, 16, 16);
SIZE(IpAddrRow, 12, 12);
AT(IpAddrTable, rows, 4, 4);
AT(IpAdapter, ipv6InterfaceIndex, 4, 8);
AT(IpAdapter, firstUnicast, 8, 16);
AT(IpUnicastAddress, address, 4, 8);
AT(IpSocketAddress6, address, 8, 8);
SIZE(IpSocketAddress6, 28, 28);
