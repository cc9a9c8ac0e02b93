// The rainbow service: finds out why the phone last went down and saves what the boot chain and the
// previous kernel left in raw partitions. One class; each duty has its own source file.
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "handle/PartitionRecords.h"
#include "handle/VortaHandle.h"

// Set to 1 by IsNormalBoot when the reason header marks an abnormal boot.
extern uint8_t abnormalBootFlag;

class RainbowHandle : public VortaHandle {
  public:
    RainbowHandle();
    ~RainbowHandle() override;

    // The whole service, see RainbowHandle.cpp for its steps. The name "minidump" leaves out the
    // history line; all other names are treated alike.
    void HandleFlow(std::string srvName) override;

    // Allocates the buffers, sets build flags and recordTime, reads the reason header. False,
    // after a log line, if any of it failed.
    bool RainbowInit();

    // --- Reason header (ReasonHeader.cpp) ---

    // Whether the node holds a usable reason; logs what is wrong.
    bool IsReasonPartValid();
    // The detail reason, or "unknown_sreason".
    std::string GetSreasonFromPart();
    // Clears the node and writes the whole record back.
    void UpdatePartReasonHeader();
    // Stores a derived reason in the node, in memory only. A reason that does not fit in the
    // field leaves it empty.
    void RainbowReasonSet(uint32_t category, std::string& reason);

    // --- Record time (RecordTime.cpp) ---

    // "-" and 8 digits: tens of nanoseconds in the current second of the monotonic clock. Empty if
    // it could not be formatted.
    std::string GetTimeTick();
    // Local date and time, 14 digits.
    std::string GetTimeStamp();
    // Time stamp and tick: names this boot's dump folder and its history line.
    std::string GetRecordTime();

    // --- History log (HistoryLog.cpp) ---

    // Open the file; open it, and begin it anew if it is over its limit; append `line`. Each
    // returns 0, or -1 after logging why.
    int HistoryFileOpen();
    int HistoryFileCheck();
    int HistoryFileRecord(const std::string& line);
    // The history step: one line for this boot.
    void HistoryFileUpdate();

    // --- Device information (DeviceInfo.cpp) ---

    // True in factory mode.
    bool IsFactoryVer();
    // Reports an abnormal reboot to the factory library.
    void UpdateRtDeviceInfo();

    // --- Dump header (DumpHeader.cpp) ---

    // Reads the header of the dump in the partition of `mode`; true if it says one is waiting.
    bool IsDumpPartValid(uint8_t mode);
    // Zeroes that header: the dump counts as collected.
    void UpdatePartDumpHeader(uint8_t mode);

    // --- Dump files (DumpFiles.cpp) ---

    // Opens or makes the file `name` below the root folder of `mode`, with the service's
    // permissions and owner. `path` receives the full path, also on failure. The caller owns the
    // descriptor; a negative one is a failure that was logged.
    int DumpFileCreate(std::string& path, const std::string& name, uint8_t mode);
    // Sets permissions and owner of an open file; failures are logged. A negative descriptor is
    // ignored.
    void DirOrFileSetPerm(int fd, int permissions, int user, int group);

    // --- Boot logs (BootLogs.cpp): each makes a text file in this boot's folder ---

    void XblAblLogUpdate();
    void LastkmsgUpdate();
    void TzLogUpdate();

    // --- Minidump (MiniDump.cpp) ---

    // Saves and packs the minidump region and clears its header, which stays on any failure.
    void SaveMiniDump(uint8_t mode);
    // Packs tmpDumpPath into rawdumpPath (gzip) and removes the former. 0, or -1 with both left.
    int DumpFileCompress();

    // --- Dump folders (DumpFolders.cpp) ---

    // Makes this boot's folder. 0, or -1 if it could not be made (or exists).
    int DumpDirOpen(uint8_t mode);
    // The entry of the root folder of `mode` that sorts first, or empty. Adds the number of entries
    // to `count`.
    std::string DumpFindOldDir(uint8_t mode, uint32_t& count);
    // Bytes in all files below `folder`, wrapping at 32 bits.
    int32_t GetFolderSize(const std::string& folder);
    // Appends the full paths of all entries below `folder` that are not folders.
    void GetDirFiles(const std::string& folder, std::vector<std::string>& files);
    // Removes the oldest entry of dumplog if the folder is over its limit.
    void DumpSizeCheck();
    // Empties the full dump folder.
    void FullDumpSizeCheck();
    // Removes a file, or a folder with its content. Links are followed.
    void DirOrFileRemove(const std::string& path);

    // --- Dump update (DumpUpdate.cpp) ---

    // kModeRawdump: collects the logs and the minidump of an abnormal boot; kModeUserdata: the full
    // dump. Any other is refused.
    void DumpFileUpdate(uint8_t mode);
    // Whether the boot level is below the abnormal ones; sets abnormalBootFlag if not.
    bool IsNormalBoot();

    // --- Full dump meta record (FulldumpMeta.cpp) ---

    // False if it could not be read, or its CRC does not match; `meta` then holds what was read.
    bool ReadFulldumpMetaInfoFromBootfail(fulldump_header& meta);
    // Sets the CRC and writes the record.
    void WriteFulldumpMetaInfoToBootfail(fulldump_header& meta);
    // True if the user type property differed from the record, which then has the new one.
    bool UpdateUserType(fulldump_header& meta);
    bool IsFulldumpReserved(const fulldump_header& meta);
    // Reads the record, or rebuilds it from rawdump. False if neither was possible.
    bool InitFullDumpMetaInfo(fulldump_header& meta);

    // --- Full dump checks (FulldumpChecks.cpp) ---

    // Takes fulldumpOffset from the meta record; 0 is not valid.
    bool IsFulldumpOffsetValid();
    // Whether /data has twice the dump's size free.
    bool IsDataPartEnough();

    // --- What the boot chain reads at the next boot (BootChainFields.cpp) ---

    // Keep the user type and the board identifier in the reason header current.
    void SetIsNeedReserveFlag();
    void SetBoardID();

  private:
    int WriteReasonHeader();
    bool SaveBootLog(const std::string& name, const Region& region, const char* operation);
    void CollectAbnormalBoot();
    void CollectFullDump();
    void ClearHeaderOnceStored(int fd, uint8_t mode, const char* operation);
    bool IsMetaInfoValid(const fulldump_header& meta);
    bool ReadFulldumpMetaInfoFromRawdump(fulldump_header& meta);

    bool isCommercial = false;
    bool isRemoteValid = false;
    android::base::unique_fd historyFd;
    std::string historyFilePath;
    std::string recordTime;
    std::string tmpDumpPath;
    std::string rawdumpPath;
    std::string fulldumpPath;
    int64_t fulldumpOffset = 0;
    int64_t fulldumpSize = 0;
    ReasonHeader* rbHeader = nullptr;  // from malloc, owned
    fulldump_header fulldumpMeta = {};
    DumpHeader* dumpHeader = nullptr;  // from malloc, owned; the header read last
};
