#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/osassert.h"
#include "Common/framework/mod_inner.h"

#include <algorithm>
#include <cstdio>

namespace
{

// What the dump shows of a record besides its callbacks: a copy, because it may be gone when it is printed.
struct RowT {
    ModT *pMod;
    eErrorT (*Dump)(ModT *pMod, Int32 verbose);
    char fullname[kModFullNameSize];
    UInt32 taskID, flags, initializedSig;
};

RowT RowOf(ModT *pMod)
{
    RowT row = {pMod, pMod->Dump, "", pMod->taskID, pMod->flags, pMod->initializedSig};
    FillFullName(pMod, row.fullname);
    return row;
}

// With a slot the callbacks end where the record goes.
void PrintRow(const RowT &row, const SlotT *pSlot)
{
    char task[kTaskNameSize] = "";
    if (row.taskID != 0)
        t_copy_name(row.taskID, task);
    std::printf("%-20.20s %8x %4.4s %c%c   \n", row.fullname, AddressWord(row.pMod), task,
                (row.flags & kModFlagA) != 0 ? 'A' : ' ', row.initializedSig == kModSignature ? 'I' : ' ');
    bool any = false;
    ModCallbackT entry;
    for (Int32 i = 0; CopyEntry(row.pMod, i, &entry, pSlot) != nullptr; i++) {
        if (entry.pFunc == nullptr)
            continue;
        std::printf("%s%d:0x%x ", any ? "" : "  callbacks: ", static_cast<Int32>(entry.funcIndex),
                    AddressWord(entry.pFunc));
        any = true;
    }
    if (any)
        std::puts("");
}

// pName null: whatever its name is.
void DumpSlot(const SlotT &slot, const char *pName)
{
    RowT row = {};
    {
        const InterruptsOffHold hold;
        ModT *pMod = slot;
        if (pMod == nullptr || (pName != nullptr && !IsNamed(pMod, pName)))
            return;
        row = RowOf(pMod);
    }
    if (row.Dump == ModDump)
        PrintRow(row, &slot);
    else
        row.Dump(row.pMod, 0);
}

} // namespace

void ModDumpHeading()
{
    std::puts("Module               address  task flags");
    std::puts("-------------------- -------- ---- -----");
}

eErrorT ModDump(ModT *pMod, Int32 verbose)
{
    os_assert(pMod, "pMod");
    if (verbose != 0)
        ModDumpHeading();
    PrintRow(RowOf(pMod), nullptr);
    return kNoError;
}

void ModDumpByName(const char *pName)
{
    os_assert(pName, "pName");
    ModDumpHeading();
    for (const SlotT &slot : gMods)
        DumpSlot(slot, pName);
}

void ModDumpAll()
{
    ModDumpRange(0, kMaxMods - 1);
}

void ModDumpRange(Int32 first, Int32 last)
{
    ModDumpHeading();
    for (Int32 i = std::max<Int32>(first, 0); i <= std::min<Int32>(last, kMaxMods - 1); i++)
        DumpSlot(gMods[i], nullptr);
}
