#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/osassert.h"
#include "Common/framework/configstore_inner.h"

#include <cstdio>
#include <cstring>
#include <iterator>

namespace
{

constexpr UInt32 kAnswerEvent = 0x4000;
constexpr UInt32 kAnswerTicks = 300;
constexpr std::size_t kCommandSize = 512; // name, instance, value and the words around them

// The context of a remote read. The contexts are used in turn, so that nobody waits on the context of a late answer.
struct RemoteReadT {
    UInt32 taskID; // who waits; 0: nobody
    char *pAnswer; // kCommandSize characters
};
RemoteReadT remoteReads[64];
UInt32 nextRemoteRead;
pthread_mutex_t remoteReadLock = PTHREAD_MUTEX_INITIALIZER; // all of the above

// Null when more tasks read than there are contexts.
RemoteReadT *TakeRemoteRead(UInt32 taskID, char *pAnswer)
{
    const MutexHold hold(&remoteReadLock);
    for (std::size_t tried = 0; tried < std::size(remoteReads); tried++) {
        RemoteReadT *pRead = &remoteReads[nextRemoteRead++ % std::size(remoteReads)];
        if (pRead->taskID == 0) {
            *pRead = {taskID, pAnswer};
            return pRead;
        }
    }
    return nullptr;
}

// Holds a context for the length of a scope, because the answer's buffer belongs to that scope.
class RemoteReadHold
{
public:
    RemoteReadHold(UInt32 taskID, char *pAnswer) : pRead_(TakeRemoteRead(taskID, pAnswer)) {}
    ~RemoteReadHold()
    {
        const MutexHold hold(&remoteReadLock);
        if (pRead_ != nullptr)
            *pRead_ = {};
    }
    RemoteReadHold(const RemoteReadHold &) = delete;
    RemoteReadHold &operator=(const RemoteReadHold &) = delete;
    RemoteReadT *Get() const { return pRead_; }

private:
    RemoteReadT *pRead_;
};

// Sends the command and waits for the answer, which comes in the command's place.
bool AskMaster(char (&command)[kCommandSize])
{
    UInt32 self = 0, events = 0;
    if (t_ident(nullptr, 0, &self) != 0)
        return false; // only a task can wait
    const RemoteReadHold read(self, command);
    if (read.Get() == nullptr)
        return false;
    ev_receive(kAnswerEvent, kEvNoWait | kEvAny, 0, &events); // left over from a wait that gave up
    char sent[kCommandSize];
    std::memcpy(sent, command, sizeof sent); // the answer may come before the sending is over
    RemMsgSendCmd(sent, remoteRspCallback, read.Get());
    return ev_receive(kAnswerEvent, kEvAny, kAnswerTicks, &events) == 0;
}

} // namespace

// The value is the first word behind the command's echo, so it can hold no blanks.
void RemoteRead(const char *name, Int32 instance, char *s, UInt32 len)
{
    char command[kCommandSize];
    std::snprintf(command, sizeof command, "%s %s %d", "config", name, instance);
    s[0] = '\0';
    if (!AskMaster(command)) {
        std::printf("ConfigStoreRead: \"%s[%d]\" timeout\n", name, instance);
        return;
    }
    if (len == 1) // a width of 0 would not be a width
        return;
    char format[32];
    std::snprintf(format, sizeof format, "%%*s %%*s %%*d %%%ds", static_cast<Int32>(len - 1));
    std::sscanf(command, format, s);
}

void remoteRspCallback(RemMsgPathT * /*pHandle*/, const char *response, void *context)
{
    if (context == nullptr)
        return;
    os_assert(response, "response");
    const MutexHold hold(&remoteReadLock);
    auto *pRead = static_cast<RemoteReadT *>(context);
    if (pRead->pAnswer != nullptr)
        std::snprintf(pRead->pAnswer, kCommandSize, "%s", response);
    if (pRead->taskID != 0)
        ev_send(pRead->taskID, kAnswerEvent);
}

bool IsWord(const char *name)
{
    return ConfigStoreIsValidName(name) && std::strpbrk(name, " \"'") == nullptr;
}

LineT::LineT(const char *value)
{
    std::snprintf(text, sizeof text, "%s", value);
    text[std::strcspn(text, "\r\n")] = '\0'; // what follows would be a command of its own
}

void TellMaster(const char *name, Int32 instance, const char *value)
{
    char command[kCommandSize];
    std::snprintf(command, sizeof command, "%s %s %d \"%s\" rw file notify", "config", name, instance,
                  LineT(value).text);
    RemMsgSendCmd(command, nullptr, nullptr);
}
