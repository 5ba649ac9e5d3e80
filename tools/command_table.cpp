/* The table of commands: the one source of the help, the manual page and the shells' completion.
 *
 * The command lines themselves are read by the C library's getopt_long, whose tables are made of this
 * one: a parser library such as CLI11 keeps its own description, from which no manual page can be
 * made, and its own wording of errors. */
#include "commands.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

const Option kJson = {0, "json", "", "print one JSON object a line"};
const Option kCount = {'n', "count", "COUNT", "end after COUNT lines"};
const Option kTimeout = {'t', "timeout", "SECONDS", "end after this time, such as 2.5"};
const Option kHeader = {0, "header", "", "print the columns' titles in a pipe too"};
const Option kFull = {0, "full", "", "do not cut the columns to the terminal's width"};
const Option kReplaceHelp = {0, "replace", "",
                             "remove the keys that are not in the file; subscribers are told an "
                             "empty value of them"};

/* What every command has that lists or watches. */
std::vector<Option> listing(std::vector<Option> own = {}) {
    own.insert(own.end(), {kJson, kCount, kTimeout, kHeader, kFull});
    return own;
}

/* The configuration store. */
const Command kConfiguration[] = {
    {"get",
     "KEY...",
     "print the values of configuration keys",
     "Prints the stored values, one a line in the order asked, all as of one moment. A key "
     "without a value is reported and makes the exit status 1; the other values are printed "
     "all the same.",
     {{0, "json", "", "print one JSON object a line, with key and value"}},
     {Kind::key},
     true,
     {"tamoctl get Conf.SIPCallParam.sipServerAddr",
      "tamoctl get --json Conf.Audio.gain Conf.Audio.mute"},
     runGet},
    {"set",
     "KEY VALUE [KEY VALUE...] | --secret KEY",
     "store configuration values",
     "Stores the values in one transaction: all of them, or none. Values are stored as they "
     "stand.\n"
     "The passwords Conf.SIPCallParam.sipPwd, Conf.H323CallParam.gkPwd and "
     "Conf.ServerParam.pwd are refused on the command line, where the shell's history and the "
     "list of processes would show them: --secret asks for the value on the terminal, or reads "
     "one line of standard input. It is encrypted as the library does it, under the key of "
     "TamoUIConf, except for Conf.ServerParam.pwd, which the library keeps as it is. Options "
     "end at the first key, so that a value may begin with '-'.",
     {{'s', "secret", "", "read the value of one key from the terminal or standard input"}},
     {Kind::key, Kind::text},
     true,
     {"tamoctl set Conf.SIPCallParam.sipServerAddr sip.example.com",
      "tamoctl set Conf.Audio.gain -6 Conf.Audio.mute 0",
      "tamoctl set --secret Conf.SIPCallParam.sipPwd <password.txt"},
     runSet,
     true},
    {"reset",
     "KEY|PREFIX. ...",
     "remove configuration keys",
     "Removes the keys in one transaction. A word that ends with '.' names all keys "
     "that begin with it. Subscribers are told an empty value of each. A key that "
     "is not stored is reported and makes the exit status 1; then nothing is "
     "removed.",
     {},
     {Kind::key},
     true,
     {"tamoctl reset Conf.Audio.gain", "tamoctl reset Conf.Audio."},
     runReset},
    {"list",
     "[GLOB]",
     "list configuration keys and values",
     "Lists the keys that match the shell pattern, or all, in order of key. Quote "
     "the pattern.",
     listing(),
     {Kind::key},
     false,
     {"tamoctl list 'Conf.SIPCallParam.*'",
      "tamoctl list --json | jq -r 'select(.value == \"\") | .key'"},
     runList},
    {"watch",
     "[GLOB]",
     "show changes of values as they happen",
     "Shows each changed value with its time and the name and process id of its writer, from "
     "now on, until interrupted; of the keys that match the shell pattern, or of all. What is "
     "stored without being changed is not shown. A removed key is shown with an empty value. "
     "When a watch is 4 MiB of changes behind, all keys are shown as they stand, with the "
     "writer (missed). Times are local, and UTC in JSON.\n"
     "The exit status is 3 when the watch ended, by its time or a signal, before COUNT changes "
     "were shown.",
     listing(),
     {Kind::key},
     false,
     {"tamoctl watch 'Conf.SIPCallParam.*'",
      "tamoctl watch --count 1 --timeout 30 Conf.Audio.mute && echo somebody pressed mute",
      "tamoctl watch --json | jq -r .writer"},
     runWatch},
    {"import",
     "FILE|-",
     "store the values of a JSON file",
     "Stores the values of a JSON object of texts, as export writes it, or of standard input "
     "(-), in one transaction: all of them, or none. A file with any fault changes nothing. "
     "Keys that are not in the file keep their values. The passwords of an export are "
     "encrypted; they serve the device root whose key encrypted them, and one in clear text is "
     "refused.",
     {kReplaceHelp,
      {'p', "prefix", "PREFIX", "take the keys that begin with PREFIX alone", Kind::key}},
     {Kind::file},
     false,
     {"tamoctl import settings.json", "tamoctl import --prefix Conf.Audio. settings.json",
      "tamoctl export | tamoctl --root /tmp/other import --replace -"},
     runImport},
    {"export",
     "[FILE|-]",
     "write keys and values as JSON",
     "Writes the whole store, as of one moment, as a JSON object in order of key; to standard "
     "output unless a file is named. The file is written beside and renamed: it is the old one "
     "or the new one, whole, readable for its owner alone. Passwords are exported as they are "
     "stored, encrypted.\n"
     "A key or value that is not UTF-8 cannot stand in JSON: it is left out and reported, and "
     "the exit status is 1. 'reset' removes it.",
     {{'p', "prefix", "PREFIX", "write the keys that begin with PREFIX alone", Kind::key}},
     {Kind::file},
     false,
     {"tamoctl export settings.json", "tamoctl export --prefix Conf.Audio. -"},
     runExport},
};

/* What running programs write, hold and serve. */
const Command kProcesses[] = {
    {"log",
     "[NAME]",
     "show the log, and follow it",
     "Shows the end of a log (Conference.log unless named), reaching back into rotated files. "
     "The filters are applied together.\n"
     "TIME is local: '2026-11-25 14:30:00', a part of it such as '2026-11-25' or '14:30', "
     "'today', 'yesterday', or a time ago such as '10m', '2h' or '3d'.",
     {{'n', "lines", "LINES", "how many lines to begin with (default: 20, or all with --since)"},
      {'f', "follow", "", "go on with what is written, across rotations, until interrupted"},
      {'l',
       "level",
       "LEVEL",
       "only records at least as severe",
       Kind::choice,
       {"error", "warning", "info", "debug"}},
      {'p', "process", "GLOB|PID", "only records of this process"},
      {'u', "unit", "GLOB", "only records of this unit"},
      {0, "since", "TIME", "only records from then on"},
      {'g', "grep", "PATTERN",
       "only records whose text matches the extended regular expression; in any letter case "
       "unless it has a capital letter"},
      {0,
       "color",
       "WHEN",
       "colour the levels (auto: on a terminal, unless NO_COLOR is set)",
       Kind::choice,
       {"auto", "always", "never"}},
      {0, "count", "COUNT", "end after COUNT lines"},
      kTimeout,
      kJson},
     {Kind::log},
     false,
     {"tamoctl log -n 100", "tamoctl log --follow --level warning",
      "tamoctl log --since 10m --unit 'conf_msg*' --grep 'time.?out'",
      "tamoctl log --json --since today | jq -r 'select(.level == \"ERROR\") | .text'"},
     runLog},
    {"mem",
     "[PID]",
     "show the memory blocks that processes hold",
     "Lists the processes that use the platform's memory layer, with what they "
     "hold; with a process id, the statements that took its outstanding blocks, "
     "largest first.",
     listing(),
     {Kind::process},
     false,
     {"tamoctl mem", "tamoctl mem 4711"},
     runMem},
    {"queues",
     "[GLOB]",
     "show message queues with owner and depth",
     "Lists the message queues: their owners, how many messages wait in them and "
     "how many were received. A queue whose owner ended is marked (dead); the next "
     "process may take it over.",
     listing(),
     {Kind::queue},
     false,
     {"tamoctl queues", "tamoctl queues --json | jq 'select(.depth > 0)'"},
     runQueues},
    {"top",
     "",
     "show queues, processes and the log's rate on a live screen",
     "Shows the queues with the messages that wait in them, the messages taken out per second "
     "and their service time, which is from when a message was handed out until it was "
     "answered, or freed when it was not; the processes with their outstanding memory blocks "
     "and open files; and the log records per second by level. The screen needs a terminal; "
     "--once prints the same after one interval, as rows.\n"
     "Median and p99 are of the last ten intervals, or of all messages since the queue was "
     "opened when none was answered in them. They are estimated from classes that double from "
     "one to the next; every fifth message is measured.\n"
     "The keys n, d, r, m and p sort the queues by name, depth, rate, median and p99, b and f "
     "the processes by blocks and open files; q quits.",
     {{'1', "once", "", "print rows once, after one interval"},
      {'i', "interval", "SECONDS", "the time between two looks (default: 1)"},
      {0, "json", "", "print one JSON object a line; with --once"},
      {'n', "count", "COUNT", "end after COUNT looks, or lines with --once"},
      kTimeout,
      kHeader,
      kFull},
     {},
     false,
     {"tamoctl top", "tamoctl top --once --json | jq 'select(.kind == \"queue\")'"},
     runTop},
    {"monitor",
     "",
     "show messages as they happen",
     "Shows what becomes of each message, from now on, until interrupted: that it was sent and "
     "received, that the handler's response was sent (responded) and came (answered, with the "
     "microseconds since the sending began), that the receiver refused it, or that its sender "
     "failed and why. The patterns are the shell's, and apply together. PROCESS and THREAD are "
     "those in which it happened; a handler is shown as its module and the offset in it. Bodies "
     "are not shown.\n"
     "Messages are not held up: a monitor that does not keep up misses events, and shows how "
     "many. Times are local, and UTC in JSON.",
     listing({{'q', "queue", "GLOB", "only messages to this queue", Kind::queue},
              {'p', "process", "GLOB", "only what happens in processes of this name"},
              {0, "handler", "GLOB", "only messages to this handler, such as 'libaudio*'"}}),
     {},
     false,
     {"tamoctl monitor --queue Conference",
      "tamoctl monitor --json | jq 'select(.event == \"failed\")'"},
     runMonitor},
    {"capture",
     "FILE|-",
     "write messages as they happen to a file for Wireshark",
     "Writes what becomes of each message, from now on, until interrupted, as monitor shows it: to "
     "a file in the form pcapng, or to standard output (-). Wireshark and tshark show every field "
     "by name, and lead from a request to its answer, with the dissector tamo.lua that is "
     "installed with tamoctl in share/tamo_host/wireshark.\n"
     "What was captured can be read while the capture goes on, and after it was killed. Messages "
     "are not held up: each packet has the number of events that were missed before it.\n"
     "Packets have no bodies of messages, as the trace has none: they have 128 bytes, and "
     "--snaplen only makes them shorter. 64 bytes hold the numbers without the names.\n"
     "The exit status is 3 when the capture ended, by its time or a signal, before COUNT events "
     "were written.",
     {{'q', "queue", "GLOB", "only messages to this queue", Kind::queue},
      {'p', "process", "GLOB", "only what happens in processes of this name"},
      {0, "handler", "GLOB", "only messages to this handler, such as 'libaudio*+0x*'"},
      {'s', "snaplen", "BYTES", "write at most so many bytes of each packet (64 or more)"},
      {'n', "count", "COUNT", "end after COUNT events"},
      kTimeout},
     {Kind::file},
     false,
     {"tamoctl capture --queue Conference requests.pcapng",
      "tamoctl capture - | wireshark -X lua_script:/usr/share/tamo_host/wireshark/tamo.lua -k -i -",
      "tshark -2 -X lua_script:/usr/share/tamo_host/wireshark/tamo.lua -r requests.pcapng"},
     runCapture},
    {"call",
     "QUEUE MODULE:FUNCTION [PARAM]",
     "send a message and print its result",
     "Sends a message as a program would, waits for the response and prints the handler's "
     "result, and the data as the handler left it. The exit status is 0 when the handler ran "
     "and returned 0.\n"
     "MODULE is a shared library that the receiver has loaded too, in the same build; it is "
     "loaded as the linker would find it, or by its path. FUNCTION is an exported name, or "
     "0xOFFSET from the module's beginning. PARAM is a number (default: 0).",
     {{'d', "data", "TEXT|@FILE", "the message's data"},
      {'b', "block", "KEY", "send a message block of this key; may come again", Kind::key},
      {'t', "timeout", "MS", "how long to wait, in milliseconds (default: 3000)"},
      kJson},
     {Kind::queue, Kind::text, Kind::text},
     false,
     {"tamoctl call Conference libconference_common.so.1:ConfConfigGetConfConfig --block "
      "Conf.Display.brightness",
      "tamoctl call Audio ./libhandlers.so:setVolume 80"},
     runCall},
    {"doctor",
     "",
     "look for what is wrong, and say what to do",
     "Looks the device root over: permissions, leftovers of dead processes, damaged or "
     "set-aside stores, queues whose owner stands still, builds of one module that differ "
     "between processes, certificates that have expired, expire within 30 days or do not match "
     "their keys, revocation lists that are out of date, a disk that is nearly full. It "
     "changes "
     "nothing. The exit status is 1 when something is wrong.",
     {kJson, kCount, kTimeout},
     {},
     false,
     {"tamoctl doctor", "tamoctl doctor --json | jq -r .advice"},
     runDoctor},
};

const std::string kAboutCertificates =
    "Running programs hear of each change. IDs are 257 to 266; the library's certificate types "
    "0 to 3 are 263, 265, 259 and 260.";

/* The certificate store. */
const Command kCertificates[] = {
    {"cert list",
     "",
     "list certificates, CA certificates and revocation lists",
     "Lists what is installed: subject, issuer, dates, days left and key.",
     listing(),
     {},
     false,
     {"tamoctl cert list", "tamoctl cert list --json | jq 'select(.daysLeft < 30)'"},
     runCertList},
    {"cert install",
     "ID CHAIN KEY",
     "install a server certificate with its key",
     "Installs a server certificate: its chain with its own certificate first, and its private "
     "key, both files in PEM. It replaces the one of that id; a key that does not belong to "
     "the certificate is refused. " +
         kAboutCertificates,
     {{0, "passphrase", "FILE", "the pass phrase of an encrypted key: the one line of a file",
       Kind::file},
      {0, "engine", "", "the key stays in the engine, which signs with it (keyless)"},
      {0, "extra", "FILE", "the second part of certificate 259 or 260", Kind::file}},
     {Kind::certificate, Kind::file, Kind::file},
     false,
     {"tamoctl cert install 263 chain.pem key.pem",
      "tamoctl cert install --engine --passphrase phrase.txt 265 chain.pem key.pem"},
     runCertInstall},
    {"cert remove",
     "ID",
     "remove a server certificate with its key",
     "Removes a server certificate and its key. " + kAboutCertificates,
     {},
     {Kind::certificate},
     false,
     {"tamoctl cert remove 263"},
     runCertRemove},
    {"cert ca install",
     "FILE...",
     "install trusted CA certificates",
     "Installs files of CA certificates in PEM. A file whose name does not end with "
     "'.pem' gets another, by which the library finds it; it is printed.",
     {},
     {Kind::file},
     true,
     {"tamoctl cert ca install company_root.pem"},
     runCertCaInstall},
    {"cert ca remove",
     "NAME...",
     "remove CA certificates",
     "Removes files of CA certificates by the names that 'cert list' shows.",
     {},
     {Kind::caFile},
     true,
     {"tamoctl cert ca remove company_root.pem"},
     runCertCaRemove},
    {"cert crl install",
     "FILE...",
     "install revocation lists",
     "Installs files of revocation lists in PEM. A file whose name does not contain "
     "'crl' and end with '.pem' gets another, by which the library finds it; it is "
     "printed.",
     {},
     {Kind::file},
     true,
     {"tamoctl cert crl install company_crl.pem"},
     runCertCrlInstall},
    {"cert crl remove",
     "NAME...",
     "remove revocation lists",
     "Removes files of revocation lists by the names that 'cert list' shows.",
     {},
     {Kind::crlFile},
     true,
     {"tamoctl cert crl remove company_crl.pem"},
     runCertCrlRemove},
};

/* tamoctl itself. */
const Command kHelp[] = {
    {"help",
     "[COMMAND]",
     "explain a command",
     "Prints what a command does, with its options and examples; or the list of "
     "commands.",
     {{0, "man", "", "print the manual page, as troff reads it"}},
     {Kind::command},
     true,
     {"tamoctl help cert install"},
     runHelp},
    {"complete",
     "WORD...",
     "print what may stand for the last word of a command line",
     "Prints what may continue the last of the words, one a line, with a tab and an "
     "explanation behind it; an empty word with 'file' or 'directory' behind the "
     "tab stands for the names of files. The shells' completion asks it.",
     {},
     {Kind::text},
     true,
     {"tamoctl complete tamoctl lo"},
     runComplete,
     true},
};

}  // namespace

const std::vector<Command> &commands() {
    static const std::vector<Command> table = [] {
        std::vector<Command> all;
        for (const std::span<const Command> family :
             {std::span<const Command>(kConfiguration), std::span<const Command>(kProcesses),
              std::span<const Command>(kCertificates), std::span<const Command>(kHelp)}) {
            all.insert(all.end(), family.begin(), family.end());
        }
        return all;
    }();
    return table;
}

const std::vector<Option> &commonOptions() {
    static const std::vector<Option> options = {
        {0, "root", "DIR",
         "the device root (default: $TAMO_DEVICE_ROOT, else 'tamo' in the user's data directory)",
         Kind::directory},
        {'h', "help", "", "print the help; behind a command, that command's"},
        {0, "version", "", "print the version"}};
    return options;
}

}  // namespace tamoctl
