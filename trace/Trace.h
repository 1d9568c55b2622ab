#pragma once

#include <string>

/// What ksttool and the manager service call the trace kinds, and where logs lie. Every query may
/// be called from any thread.
namespace kst::trace {

// Folders end in "/"; names are appended to them directly.
inline const char* kScratchFolder = "/var/wireless/Library/Logs/Kestrane/";
inline const char* kTrashFolder = "/var/wireless/Library/Logs/kst.trash/";
inline const char* kSnapshotFolder = "/var/wireless/Library/Logs/FaultDepot/Baseband/";
inline const char* kWorkspaceFolder = "/var/wireless/Library/Logs/kst.workspace/";
inline const char* kUncompressedFolder = "/var/wireless/Library/Logs/kst.workspace/uncompressed/";
inline const char* kKSTPostfix = "kst";
inline const char* kKSTInfoFilename = "/kst-info.txt";
inline const char* kLogDirPrefix = "log-bb-";
inline const char* kDumpIndicationFilePath = "/tmp/Kestrane.dumping";
inline const char* kNumberOfLogsInSnapshotPath = "Trace::NumberOfLogsInSnapshotPath";

// Trace kinds.
inline const char* kCoreDump = "CoreDump";
inline const char* kBasebandTrace = "BasebandTrace";
inline const char* kIPC = "IPC";
inline const char* kCSI = "CSILog";
inline const char* kTEL = "TelephonyLog";
inline const char* kBasebandIPC = "BasebandIPC";
inline const char* kKST = "KST";
inline const char* kCompression = "Compression";
inline const char* kQuickTicket = "QuickTicket";
inline const char* kSystemLogs = "SystemLogs";
inline const char* kProfile = "Profile";
inline const char* kJUNTrace = "JUNTrace";
inline const char* kJUNCoreDump = "JUNCoreDump";
inline const char* kDIAG = "DIAG";
inline const char* kZORCoreDump = "ZORCoreDump";

/// Whether this device and build allow tracing. Asked of the build once for the life of the
/// process.
bool isAllowed();

/// Whether kernel PCI tracing is available.
bool isKernelPCITraceSupported();

/// Whether the trace kind of that name, in any letter case, is available. kCSI and kTEL never are.
bool isSupported(std::string name);

/// Whether the radio can report the status of a core dump.
bool isCoreDumpStatusSupported();

/// Whether the dump-log indication is available.
bool isDumpLogIndicationSupported();

}  // namespace kst::trace
