#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/osassert.h"
#include "Common/framework/configstore_inner.h"

#include <cstdio>
#include <utility>

namespace
{

using FileNameT = char *(*)(const char *name, Int32 instance, char *path);

eErrorT OpenFile(FileNameT fileName, const char *name, Int32 instance, ConfigFileT *pFile)
{
    *pFile = {};
    if (ConfigStoreIsValidName(name))
        pFile->stream = std::fopen(fileName(name, instance, pFile->path), "rbe");
    return pFile->stream != nullptr ? kNoError : kBadParameter;
}

// Skips the rest of a line. A line ends at its line feed. Characters behind a carriage return are not read.
void SkipLine(FILE *stream, int c)
{
    while (c != '\n' && c != EOF)
        c = getc_unlocked(stream);
}

// Reads at most len - 1 characters of a line, and its end as well if nothing else is left of it.
eErrorT GetLine(FILE *stream, char *s, UInt32 len)
{
    UInt32 length = 0;
    int c = 0;
    while (length < len - 1 && (c = getc_unlocked(stream)) != EOF && c != '\n' && c != '\r')
        s[length++] = static_cast<char>(c);
    s[length] = '\0';
    if (c == EOF && length == 0)
        return kEndOfFile;
    if (length == len - 1)
        c = getc_unlocked(stream);
    if (c == '\n' || c == '\r')
        SkipLine(stream, c);
    else
        std::ungetc(c, stream); // the rest of a longer line, or the end of the file
    return kNoError;
}

// Reads the first line of a file. A file that is empty or cannot be read gives an empty value. It is read again the
// next time. A directory counts as missing.
eErrorT ReadFirstLine(FileNameT fileName, const char *name, Int32 instance, char *s, UInt32 len)
{
    const CancelOffHold cancelOff; // a file that was opened is closed
    s[0] = '\0';
    ConfigFileT file;
    if (OpenFile(fileName, name, instance, &file) != kNoError)
        return kBadParameter;
    GetLine(file.stream, s, len);
    const bool isFolder = std::ferror(file.stream) != 0 && ConfigIsFolderExist(file.path) != 0;
    ConfigStoreReadClose(&file);
    return isFolder ? kBadParameter : kNoError;
}

} // namespace

eErrorT ConfigStoreRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    os_assert(name, "pName");
    os_assert(s, "s");
    os_assert(len, "len");
    if (IsMasterProcessor()) {
        const eErrorT result = ReadFirstLine(ConfigGetDatFileName, name, instance, s, len);
        return result == kNoError ? kNoError : ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
    }
    s[0] = '\0';
    if (!IsWord(name))
        return kBadParameter;
    RemoteRead(name, instance, s, len);
    return kNoError; // deliberate, even without an answer: an empty value is asked for again
}

eErrorT ConfigStoreChoiceRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    os_assert(name, "pName");
    os_assert(s, "s");
    os_assert(len, "len");
    return ReadFirstLine(ConfigGetChoiceFileName, name, instance, s, len);
}

// ---- Line by line

eErrorT ConfigStoreReadOpen(const char *name, Int32 instance, ConfigFileT *pFile)
{
    os_assert(name, "pName");
    os_assert(pFile, "pFile");
    *pFile = {};
    if (!IsMasterProcessor())
        return kBadParameter;
    const eErrorT result = OpenFile(ConfigGetDatFileName, name, instance, pFile);
    return result == kNoError ? kNoError : OpenFile(ConfigGetChoiceFileName, name, instance, pFile);
}

eErrorT ConfigStoreReadGetLine(ConfigFileT *pFile, char *s, UInt32 len)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->stream, "pFile->stream");
    os_assert(s, "s");
    os_assert(len > 1, "len"); // a line of no characters would never reach the end
    return GetLine(pFile->stream, s, len);
}

void ConfigStoreReadClose(ConfigFileT *pFile)
{
    os_assert(pFile, "pFile");
    os_assert(pFile->stream, "pFile->stream");
    std::fclose(std::exchange(pFile->stream, nullptr));
}
