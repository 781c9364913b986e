#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/osassert.h"
#include "Common/framework/configstore_inner.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace
{

eErrorT CloseWritten(ConfigFileT *pFile, ConfigFailureT *pFailure)
{
    const CancelOffHold cancelOff; // no file stays open, no temporary one stays behind, and the lines are given back
    if (pFile->failure.call == nullptr)
        StoreFile(pFile);
    std::free(pFile->text);
    *pFailure = pFile->failure;
    *pFile = {};
    return pFailure->call == nullptr ? kNoError : kBadParameter;
}

} // namespace

bool ConfigStoreMayWrite(const char *name, const char *value)
{
    os_assert(value, "value");
    if (IsMasterProcessor())
        return ConfigStoreIsValidName(name);
    return IsWord(name) && std::strchr(LineT(value).text, '"') == nullptr;
}

eErrorT ConfigStoreWrite(const char *name, Int32 instance, const char *value)
{
    ConfigFailureT failure = {};
    const eErrorT result = ConfigStoreTryWrite(name, instance, value, &failure);
    ConfigStoreReport(failure);
    return result;
}

eErrorT ConfigStoreTryWrite(const char *name, Int32 instance, const char *value, ConfigFailureT *pFailure)
{
    os_assert(pFailure, "pFailure");
    *pFailure = {};
    if (!ConfigStoreMayWrite(name, value))
        return kBadParameter;
    if (!IsMasterProcessor()) {
        TellMaster(name, instance, value);
        return kNoError;
    }
    ConfigFileT file;
    ConfigStoreWriteOpen(name, instance, &file);
    ConfigStoreWritePutLine(&file, value);
    return CloseWritten(&file, pFailure);
}

void ConfigStoreReport(const ConfigFailureT &failure)
{
    if (failure.call == nullptr)
        return;
    errno = failure.error;
    std::perror(failure.call);
}

eErrorT ConfigStoreDelete(const char *name, Int32 instance)
{
    os_assert(name, "pName");
    if (!IsMasterProcessor())
        return kNotImplemented;
    char path[kConfigPathSize];
    if (!ConfigStoreIsValidName(name))
        return kItemNotFound;
    if (unlink(ConfigGetDatFileName(name, instance, path)) != 0)
        return errno == ENOENT ? kItemNotFound : kBadParameter;
    NoteWrite();
    return kNoError;
}

// ---- Line by line

eErrorT ConfigStoreWriteOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    os_assert(name, "pName");
    os_assert(pFile, "pFile");
    *pFile = {};
    if (!IsMasterProcessor() || !ConfigStoreIsValidName(name))
        return kBadParameter;
    ConfigGetDatFileName(name, instance, pFile->path);
    pFile->isWritten = 1;
    return kNoError;
}

eErrorT ConfigStoreWritePutLine(ConfigFileT *pFile, const char *line)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->isWritten, "pFile->isWritten");
    os_assert(line, "line");
    const std::size_t length = std::strcspn(line, "\r\n");
    auto *text = static_cast<char *>(std::malloc(pFile->size + length + 1));
    if (text == nullptr) {
        Fail(pFile, "ConfigStoreWrite: fwrite");
        return kBadParameter;
    }
    *std::copy_n(line, length, std::copy_n(pFile->text, pFile->size, text)) = '\n';
    std::free(std::exchange(pFile->text, text));
    pFile->size += length + 1;
    return kNoError;
}

eErrorT ConfigStoreWriteClose(ConfigFileT *pFile)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->isWritten, "pFile->isWritten");
    ConfigFailureT failure;
    const eErrorT result = CloseWritten(pFile, &failure);
    ConfigStoreReport(failure);
    return result;
}
