/* Live settings: thirty variables of a program, of every type and width, that follow what another
 * process changes.
 *
 *     example_live_settings
 *
 * The program starts itself once more, as the editor:
 *
 *     binds its variables, pulls their values     the editor does the same,
 *     a report runs its callback, which      <--- applies a list and has the changes stored
 *     applies the new values
 *     applies a list of its own; changes variables and writes them back by prefix
 */
#include <errno.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>

#include "conf_config.h"
#include "conf_log_adapter.h"

namespace {

/* The program's own variables, by type and width. */
struct {
    int8_t balance = 0, brightness = 0;
    int16_t gain = -6;
    int32_t delay = 0, timeout = 30;
    int64_t callsSoFar = 0, quota = -1;
    uint8_t volume = 40, lines = 4;
    uint16_t width = 1920, height = 1080, port = 5060;
    uint32_t bitrate = 4000000;
    uint64_t bytesSoFar = 0;
    float treble = 0, zoom = 1;
    double bass = 1.5, aspect = 16.0 / 9;
    bool muted = false, autoAnswer = false;
    uint16_t mirrored = 0; /* a truth value may have the width of any integer */
    uint32_t overlay = 1;
    uint64_t encrypted = 1;
    char microphone[32] = "table", speaker[16] = "ceiling", camera[64] = "front";
    char server[256] = "sip.example.com", user[128] = "room-4", welcome[1024] = "";
    unsigned char session[32] = {}; /* bytes: they never leave the program */
} own;

void changed(const ConfConfigListItem *items, uint32_t count);

struct Binding {
    const char *key;
    ConfConfigValueType type;
    void *variable;
    uint32_t size;
};

template <typename Variable>
Binding bound(const char *key, ConfConfigValueType type, Variable &variable) {
    return {key, type, &variable, sizeof(variable)};
}

const Binding bindings[] = {
    bound("Conf.Audio.balance", CONF_VALUE_INT, own.balance),
    bound("Conf.Audio.gain", CONF_VALUE_INT, own.gain),
    bound("Conf.Audio.delay", CONF_VALUE_INT, own.delay),
    bound("Conf.Audio.callsSoFar", CONF_VALUE_INT, own.callsSoFar),
    bound("Conf.Audio.volume", CONF_VALUE_UINT, own.volume),
    bound("Conf.Audio.treble", CONF_VALUE_FLOAT, own.treble),
    bound("Conf.Audio.bass", CONF_VALUE_FLOAT, own.bass),
    bound("Conf.Audio.muted", CONF_VALUE_BOOL, own.muted),
    bound("Conf.Audio.microphone", CONF_VALUE_STR, own.microphone),
    bound("Conf.Audio.speaker", CONF_VALUE_STR, own.speaker),
    bound("Conf.Video.width", CONF_VALUE_UINT, own.width),
    bound("Conf.Video.height", CONF_VALUE_UINT, own.height),
    bound("Conf.Video.bitrate", CONF_VALUE_UINT, own.bitrate),
    bound("Conf.Video.bytesSoFar", CONF_VALUE_UINT, own.bytesSoFar),
    bound("Conf.Video.zoom", CONF_VALUE_FLOAT, own.zoom),
    bound("Conf.Video.aspect", CONF_VALUE_FLOAT, own.aspect),
    bound("Conf.Video.mirrored", CONF_VALUE_BOOL, own.mirrored),
    bound("Conf.Video.overlay", CONF_VALUE_BOOL, own.overlay),
    bound("Conf.Video.camera", CONF_VALUE_STR, own.camera),
    bound("Conf.Video.brightness", CONF_VALUE_INT, own.brightness),
    bound("Conf.Call.server", CONF_VALUE_STR, own.server),
    bound("Conf.Call.port", CONF_VALUE_UINT, own.port),
    bound("Conf.Call.encrypted", CONF_VALUE_BOOL, own.encrypted),
    bound("Conf.Call.autoAnswer", CONF_VALUE_BOOL, own.autoAnswer),
    bound("Conf.Call.timeout", CONF_VALUE_INT, own.timeout),
    bound("Conf.Call.quota", CONF_VALUE_INT, own.quota),
    bound("Conf.Call.lines", CONF_VALUE_UINT, own.lines),
    bound("Conf.Call.user", CONF_VALUE_STR, own.user),
    bound("Conf.Call.welcome", CONF_VALUE_STR, own.welcome),
    bound("Conf.Call.session", CONF_VALUE_DATA, own.session),
};
static_assert(std::size(bindings) == 30);

void bindItems() {
    for (const Binding &each : bindings) {
        ConfConfigBind(each.key, each.type, each.variable, each.size, changed);
    }
}

/* Reports come on the client's thread: the lock keeps it apart from main. */
std::mutex lock;
std::condition_variable followed;

void changed(const ConfConfigListItem *items, uint32_t count) {
    const std::lock_guard guard(lock);
    for (uint32_t i = 0; i < count; i++) {
        printf("[follower]   changed in the store: %s = %s\n", items[i].key, items[i].value);
    }
    // As the items come they can be applied; nothing is to be stored, for stored it is.
    ConfConfigSetList(items, static_cast<int32_t>(count), 0);
    followed.notify_all();
}

/* ---- the editor, and the follower's steps ---- */

const ConfConfigListItem edits[] = {
    {"Conf.Audio.gain", "-12"},      {"Conf.Audio.muted", "true"},
    {"Conf.Video.zoom", "2.5"},      {"Conf.Video.camera", "document"},
    {"Conf.Video.mirrored", "TRUE"}, {"Conf.Call.quota", "9000000000"},
};
constexpr auto kEdits = static_cast<int32_t>(std::size(edits));

int edit() {
    return ConfConfigSetList(edits, kEdits, 1) == kEdits ? 0 : 1;
}

/* Prints a step; false when it did not go as it should. */
bool step(const char *what, bool good) {
    printf("[follower] %s%s\n", what, good ? "" : ": NOT as expected");
    return good;
}

bool isEdited() {
    return own.gain == -12 && own.muted && own.zoom == 2.5F && own.mirrored == 1 &&
           strcmp(own.camera, "document") == 0 && own.quota == 9000000000;
}

bool followEditor() {
    char role[] = "editor";
    char *arguments[] = {program_invocation_name, role, nullptr};
    pid_t editor = 0;
    int status = 1;
    if (posix_spawnp(&editor, arguments[0], nullptr, nullptr, arguments, environ) != 0) {
        return false;
    }
    waitpid(editor, &status, 0);
    std::unique_lock guard(lock);
    return followed.wait_for(guard, std::chrono::seconds(20), isEdited) && status == 0;
}

bool applyList() {
    const ConfConfigListItem list[] = {{"Conf.Call.port", "5061"}, {"Conf.Call.timeout", "45"}};
    const std::lock_guard guard(lock);
    // Both are applied and stored; the second time nothing changes, and the result says so.
    return ConfConfigSetList(list, 2, 1) == 2 && own.port == 5061 &&
           ConfConfigSetList(list, 2, 1) == -2 && ConfConfigGetIntValue("Conf.Call.port") == 5061;
}

bool writeBack() {
    const std::lock_guard guard(lock);
    own.volume = 75;
    own.brightness = 10;
    return ConfConfigSyncByKeyToOM("Conf.Audio.") == 0 &&
           ConfConfigGetIntValue("Conf.Audio.volume") == 75 &&
           ConfConfigGetIntValue("Conf.Video.brightness") == 0;
}

int follow() {
    // A first start: the service gets what the program begins with.
    bool good = step("29 variables stored, one is local", ConfConfigSyncByKeyToOM("") == 0);
    good = step("the editor's changes have arrived", followEditor()) && good;
    good = step("a list applied and stored", applyList()) && good;
    good = step("\"Conf.Audio.\" written back, nothing else", writeBack()) && good;
    return step("all as expected", good) ? 0 : 1;
}

}  // namespace

int main(int argc, char **) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const bool isEditor = argc > 1;
    const char *name = isEditor ? "Editor" : "Follower";
    if (ConfLogInit() != 0 || ConfConfigInit(bindItems, name, "Conf") != 0) {
        fprintf(stderr, "no log or no store: look at TAMO_DEVICE_ROOT\n");
        return 1;
    }
    if (isEditor) {
        ConfConfigInitOmCfg();
    }
    const int result = isEditor ? edit() : follow();
    // In this order: once disconnected, no report meets the end of the index.
    ConfConfigUnInit();
    ConfConfigDeInit();
    ConfLogUnInit();
    return result;
}
