/* A small user of the installed library in C++: takes a block and gives it back, and reads JSON. */
#include <cjson/cJSON.h>
#include <conf_json.h>
#include <conf_msg_api.h>
#include <tamo_host.h>
#include <tamo_os_mem.h>

#include <cstdio>

int main() {
    TamoHostQueue *queue = nullptr;
    if (TamoHostMsgOpen("Consumer", &queue) != TAMO_HOST_OK) {
        return 1;
    }
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock("body", 4);
    if (block == nullptr || GetMeetingServerMsgBlockSize(block) != 4 + 83) {
        return 2;
    }
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "consumer");
    TamoHostMsgClose(queue);
    cJSON *root = ConfJsonParse("{\"site\": \"Berlin\"}");
    if (ConfJsonGetString(root, "site", "") != "Berlin") {
        return 3;
    }
    cJSON_Delete(root);
    std::puts("consumer: ok");
    return 0;
}
