/* Where the fields of the records lie that cross the boundary or travel between processes. Valid C11
 * and C++, compiled as both, in both pointer widths. With 32-bit pointers the offsets are the
 * terminal's; with 64-bit ones a pointer widens in place, or into unused words beside it. */
#pragma once
#include <assert.h>
#include <conf_cert.h>
#include <conf_config.h>
#include <conf_config_value.h>
#include <conf_msg_api.h>
#include <conf_timer.h>
#include <ip_helper.h>
#include <stddef.h>
#include <tamo_om_cert_client.h>
#include <tamo_om_config_client.h>
#include <tamo_om_log_client.h>
#include <tamo_os_lock.h>
#include <tamo_os_msg.h>
#include <tamo_os_time.h>
#include <tamo_os_timer.h>
#include <xml_utility.h>

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

AT(ConfConfigValue, payload, 8, 8);
AT(ConfConfigValue, payload.str.length, 12, 16);
AT(ConfConfigValue, payload.data.length, 12, 16);
SIZE(ConfConfigValue, 16, 24);

AT(ConfConfigOmBatch, capacity, 4, 4);
AT(ConfConfigOmBatch, records, 8, 8);
SIZE(ConfConfigOmBatch, 12, 16);

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
AT(ConfCommTimerEntry, defaultDuration, 8, 8);
AT(ConfCommTimerEntry, receiver, 12, 16);
AT(ConfCommTimerEntry, handler, 16, 24);
AT(ConfCommTimerEntry, handle, 20, 32);
AT(ConfCommTimerEntry, param, 24, 36);
AT(ConfCommTimerEntry, data, 28, 40);
AT(ConfCommTimerEntry, dataLength, 32, 48);
SIZE(ConfCommTimerEntry, 36, 56);

AT(ConfTimer, mode, 4, 4);
AT(ConfTimer, receiver, 8, 8);
AT(ConfTimer, handler, 12, 16);
AT(ConfTimer, handle, 16, 24);
AT(ConfTimer, param, 20, 28);
AT(ConfTimer, dataLength, 24, 32);
AT(ConfTimer, data, 28, 40);
SIZE(ConfTimer, 32, 48);

AT(ConfSysTime, month, 2, 2);
AT(ConfSysTime, second, 6, 6);
AT(ConfSysTime, millisecond, 8, 8);
SIZE(ConfSysTime, 10, 10);

AT(OsTmrCreateParam, receiver, 4, 4);
AT(OsTmrCreateParam, key, 20, 24);
AT(OsTmrCreateParam, kind, 52, 52);
AT(OsTmrCreateParam, ticks, 56, 56);
AT(OsTmrCreateParam, periodic, 60, 60);
AT(OsTmrCreateParam, expiry, 64, 64);
SIZE(OsTmrCreateParam, 68, 72);

AT(OsTimeEx, day, 16, 16);
AT(OsTimeEx, year, 24, 24);
SIZE(OsTimeEx, 36, 36);

AT(ConfGmSrvCertInfo, keyPath, 512, 512);
AT(ConfGmSrvCertInfo, keyPassword, 1024, 1024);
SIZE(ConfGmSrvCertInfo, 1152, 1152);
AT(ConfCaCertEntry, fileType, 512, 512);
SIZE(ConfCaCertEntry, 516, 516);
AT(ConfCertPathInfo, keyPassword, 1024, 1024);
SIZE(ConfCertPathInfo, 1088, 1088);
SIZE(ConfCertSizes, 12, 12);
AT(ConfCertContent, extraData, 8, 16);
AT(ConfCertContent, spare, 16, 28);
AT(ConfCertIdBuffer, length, 4, 8);

AT(ConfXmlAttrDesc, value, 4, 8);
SIZE(ConfXmlAttrDesc, 8, 16);
AT(ConfXmlNodeDesc, attrCount, 8, 16);
AT(ConfXmlNodeDesc, attrs, 12, 24);
SIZE(ConfXmlNodeDesc, 16, 32);
AT(ConfXmlEncodeDesc, nodeCount, 8, 16);
SIZE(ConfXmlEncodeDesc, 12, 24);
AT(ConfXmlEncodeRootDesc, childCount, 8, 16);
SIZE(ConfXmlEncodeRootDesc, 12, 24);
AT(ConfXmlNoteParam, isString, 68, 68);
AT(ConfXmlNoteParam, dst, 72, 72);
AT(ConfXmlNoteParam, dstSize, 76, 80);
AT(ConfXmlNoteParam, asciiCodes, 81, 85);
SIZE(ConfXmlNoteParam, 84, 88);
AT(ConfXmlValue, value, 4, 8);
AT(ConfXmlValue, charLen, 8, 16);
SIZE(ConfXmlValue, 12, 24);
SIZE(ConfXmlValueNodeDesc, 8, 16);
AT(ConfXmlNodeInfo, nodeName, 4, 8);
AT(ConfXmlNodeInfo, name, 37, 41);
AT(ConfXmlNodeInfo, type, 70, 74);
AT(ConfXmlNodeInfo, instId, 72, 76);
AT(ConfXmlNodeInfo, charLen, 76, 80);
SIZE(ConfXmlNodeInfo, 80, 88);
AT(TransXMLContext, word, 4, 8);
AT(TransXMLContext, spare, 8, 12);
SIZE(TransXMLContext, 16, 24);
