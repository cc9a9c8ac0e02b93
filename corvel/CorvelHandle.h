// The corvel service: on a build that is not commercial, and while the 64-bit record that the boot
// chain passes on the kernel command line lacks the corrected mark, writes the run mode's default
// record, tagged and marked, into the first eight bytes of rawdump.
#pragma once

#include <stdint.h>

#include <string>

#include "handle/PartitionRecords.h"
#include "handle/VortaHandle.h"

class CorvelHandle : public VortaHandle {
  public:
    CorvelHandle();
    ~CorvelHandle() override;

    void HandleFlow(std::string srvName) override;

    // Reads the value from the kernel command line, if it is there and is a hexadecimal number.
    void GetCorvelFromCmdline();

    // True while the value lacks the corrected mark.
    bool IsFirstBoot();

    // Allocates the zeroed header buffer.
    void CorvelPartInit();

    // Stores `value`, tagged and marked, in bytes 0 to 7 of the header; the other bytes of the
    // record are written back as they were read.
    void CorvelPartWrite(uint64_t value);

    // Writes the run mode's default value on a first boot of a build that is not commercial.
    void CorrectCorvelData();

  private:
    static uint64_t corvelValue;
    static uint8_t
        valueSet;  // 1 once an item was found or a record was to be written; read by nothing

    ReasonHeader* rbHeader = nullptr;  // from malloc, owned
};
