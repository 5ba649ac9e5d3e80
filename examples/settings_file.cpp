/* Settings of a terminal in a file: saved, loaded, saved by a process that dies, and read from the
 * files of an older and a newer program.
 *
 *     example_settings_file
 *
 * The exit code is 1 when something is not as it should be. */
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "conf_log_adapter.h"
#include "tamo_os_file.h"
#include "xml_utility.h"

namespace {

constexpr const char *kFile = "/data/settings.xml", *kBackup = "/data/settings.bak";

/* Of a program before most of the settings, and of one with more, and the speakers in another order. */
constexpr const char *kOlder =
    "<cfg name='Root'><cfg name='Audio'><val name='volume' type='INT8'>7</val></cfg></cfg>";
constexpr const char *kNewer =
    "<cfg name='Root'><cfg name='Lights'><val name='on' type='UINT8'>1</val></cfg>"
    "<cfg name='Speakers'><cfg name='Speaker' InstID='1'><val name='level' type='UINT32'>7</val>"
    "</cfg><cfg name='Speaker'><val name='level' type='UINT32'>8</val></cfg></cfg></cfg>";

struct Camera {
    char name[32];
    struct {
        char name[16];
        int16_t pan, tilt;
        uint8_t zoom;
    } presets[3];
    uint8_t on;
};

struct Settings {
    uint32_t siteId; /* all 32 bits are used */
    int32_t minutesFromUtc;
    char siteName[32], deviceName[32];
    uint8_t volume;
    int8_t gain;
    uint16_t speakerLevels[2];
    Camera cameras[3];
};

Settings settings;

/* Every field tells the number it was made from, so that a mixture of two would show. */
Settings makeSettings(uint32_t number) {
    Settings made = {};
    made.siteId = 0xFFFFFFFFU - number;
    made.minutesFromUtc = -static_cast<int32_t>(number);
    made.volume = static_cast<uint8_t>(number);
    made.gain = static_cast<int8_t>(-made.volume / 2);
    snprintf(made.siteName, sizeof(made.siteName), "Berlin <%u>", number);
    snprintf(made.deviceName, sizeof(made.deviceName), "Mic%u", number);
    made.speakerLevels[0] = made.speakerLevels[1] = static_cast<uint16_t>(number);
    for (Camera &camera : made.cameras) {
        snprintf(camera.name, sizeof(camera.name), "Camera & %u", number);
        for (auto &preset : camera.presets) {
            snprintf(preset.name, sizeof(preset.name), "\"%u\"", number);
            preset.pan = preset.tilt = static_cast<int16_t>(-made.volume);
            camera.on = preset.zoom = made.volume;
        }
    }
    return made;
}

unsigned fieldCount;

void addField(ConfXmlNode *parent, const ConfXmlValueNodeDesc &desc, const void *field,
              size_t size) {
    char address[24];
    snprintf(address, sizeof(address), "%" PRIuPTR, reinterpret_cast<uintptr_t>(field));
    ConfXmlValue value = {CONF_XML_ATTR_CHAR, {}, static_cast<uint16_t>(size)};
    value.value.text = address;
    ConfXmlAddSingleValueNode(parent, &desc, &value);
    fieldCount++;
}

/* The type in the file follows from the field's. */
template <typename Number>
void add(ConfXmlNode *parent, const char *name, const Number &field) {
    constexpr const char *types[] = {"UINT8", "INT8", "UINT16", "INT16", "UINT32", "INT32"};
    addField(parent, {name, types[sizeof(field) / 2 * 2 + std::is_signed_v<Number>]}, &field, 0);
}
template <size_t size>
void add(ConfXmlNode *parent, const char *name, const char (&field)[size]) {
    addField(parent, {name, "CHAR"}, field, size);
}

void addCamera(ConfXmlNode *cameras, uint16_t number) {
    const Camera &camera = settings.cameras[number];
    ConfXmlNode *node = ConfXmlAddMultiStructNode(cameras, "Camera", number);
    add(node, "name", camera.name);
    add(node, "on", camera.on);
    ConfXmlNode *presets = ConfXmlAddMultiInstanceNode(node, "Presets", 3);
    for (uint16_t at = 0; at < 3; at++) {
        ConfXmlNode *preset = ConfXmlAddMultiStructNode(presets, "Preset", at);
        add(preset, "name", camera.presets[at].name);
        add(preset, "pan", camera.presets[at].pan);
        add(preset, "tilt", camera.presets[at].tilt);
        add(preset, "zoom", camera.presets[at].zoom);
    }
}

/* The library calls this for each save and load, and releases the table. */
ConfXmlNode *describe(int32_t) {
    fieldCount = 0;
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    ConfXmlNode *site = ConfXmlAddSingleStructNode(root, "Site");
    add(site, "name", settings.siteName);
    add(site, "id", settings.siteId);
    add(site, "minutesFromUtc", settings.minutesFromUtc);
    ConfXmlNode *audio = ConfXmlAddSingleStructNode(root, "Audio");
    add(audio, "volume", settings.volume);
    add(audio, "deviceName", settings.deviceName);
    add(audio, "gain", settings.gain);
    ConfXmlNode *speakers = ConfXmlAddMultiInstanceNode(root, "Speakers", 2);
    add(ConfXmlAddMultiStructNode(speakers, "Speaker", 0), "level", settings.speakerLevels[0]);
    add(ConfXmlAddMultiStructNode(speakers, "Speaker", 1), "level", settings.speakerLevels[1]);
    ConfXmlNode *cameras = ConfXmlAddMultiInstanceNode(root, "Cameras", 3);
    addCamera(cameras, 0);
    addCamera(cameras, 1);
    addCamera(cameras, 2);
    return root;
}

/* Does the file load, and is it one save's? */
bool isWhole(const char *path) {
    settings = {};
    const bool loaded = ConfXmlLoad(describe, path, path) == 0;
    const Settings expected = makeSettings(0xFFFFFFFFU - settings.siteId);
    return loaded && memcmp(&settings, &expected, sizeof(settings)) == 0;
}

/* The child: saves until it is killed, and says so before each save. */
int saveForEver() {
    uint32_t number = 0;
    do {
        settings = makeSettings(++number);
    } while (write(STDOUT_FILENO, ".", 1) == 1 && ConfXmlSave(describe, kFile, kBackup) == 0);
    return 1;
}

/* Kills a child in its n-th save. */
bool survivesKill(int n) {
    int line[2], status = 0;
    const pid_t child = pipe(line) == 0 ? fork() : -1;
    if (child == 0) {
        dup2(line[1], STDOUT_FILENO);
        execlp(program_invocation_name, "example_settings_file", "child", nullptr);
        _exit(1);
    }
    close(line[1]);
    for (char dot; n > 0 && read(line[0], &dot, 1) == 1; n--) {
    }
    const bool killed = child > 0 && kill(child, SIGKILL) == 0 &&
                        waitpid(child, &status, 0) == child && WIFSIGNALED(status);
    close(line[0]);
    return killed && isWhole(kFile) && isWhole(kBackup);
}

/* Loads another program's file over the settings. */
bool loads(const char *content) {
    FILE *file = OsFopen("/data/other.xml", "w");
    return file != nullptr && fputs(content, file) >= 0 && fclose(file) == 0 &&
           ConfXmlLoad(describe, "/data/other.xml", kBackup) == 0;
}

}  // namespace

int main(int argc, char **) {
    if (argc > 1) {
        return saveForEver();
    }
    settings = makeSettings(5);
    const bool saved = ConfXmlSave(describe, kFile, kBackup) == 0 && isWhole(kFile);
    printf("%u fields come back as they were saved: %s\n", fieldCount, saved ? "yes" : "NO");
    bool whole = true;
    for (int kills = 1; kills <= 10; kills++) {
        whole = survivesKill(kills) && whole;
    }
    printf("both files are whole after each of ten kills: %s\n", whole ? "yes" : "NO");
    SetLogLevel(0); /* each field that a file does not have leaves a record */
    settings = makeSettings(7);
    settings.volume = 80;
    Settings expected = makeSettings(7);
    bool others = loads(kOlder) && memcmp(&settings, &expected, sizeof(expected)) == 0;
    expected.speakerLevels[0] = 8;
    others = loads(kNewer) && memcmp(&settings, &expected, sizeof(expected)) == 0 && others;
    printf("an older and a newer file load what both know: %s\n", others ? "yes" : "NO");
    return saved && whole && others ? 0 : 1;
}
