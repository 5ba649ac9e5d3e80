/* The functions that run the commands, for their table. */
#pragma once

namespace tamoctl {

struct Command;
class Arguments;

using Run = int(const Command &command, const Arguments &arguments);

Run runGet, runSet, runReset, runList;
Run runWatch, runMonitor, runCapture;
Run runImport, runExport;
Run runLog;
Run runMem, runQueues, runTop;
Run runCall;
Run runDoctor;
Run runCertList, runCertInstall, runCertRemove;
Run runCertCaInstall, runCertCaRemove, runCertCrlInstall, runCertCrlRemove;
Run runHelp, runComplete;

}  // namespace tamoctl
