#include "media_server/MediaServerMachineState.h"

#include "media_server/MediaServerMachineOwner.h"
#include "media_server/MediaServerMachineSM.h"
#include "media_server/MediaServerMachineStates.h"
#include "platform/log/Logger.h"

namespace MediaV2 {

MediaServerMachineState::MediaServerMachineState(MediaServerMachineSM* machine)
    : mMachine(machine)
{
}

void MediaServerMachineState::enter()
{
    manager()->machineStateChanged();
}

void MediaServerMachineState::leave()
{
}

int MediaServerMachineState::timeoutSecs() const
{
    return 0;
}

void MediaServerMachineState::entered()
{
}

MediaServerMachineOwner* MediaServerMachineState::manager() const
{
    return mMachine->player();
}

bool MediaServerMachineState::isTrace() const
{
    return manager()->isTrace();
}

const char* MediaServerMachineState::eventName(MachineEvent event)
{
    static const char* const names[] = {
#define CABIN_EVENT_NAME(name) #name,
        MEDIA_SERVER_MACHINE_EVENTS(CABIN_EVENT_NAME)
#undef CABIN_EVENT_NAME
    };
    return names[int(event)];
}

#define CABIN_EVENT_DEFINITION(name)         \
    bool MediaServerMachineState::name()     \
    {                                        \
        return handle(MachineEvent::name);   \
    }
MEDIA_SERVER_MACHINE_EVENTS(CABIN_EVENT_DEFINITION)
#undef CABIN_EVENT_DEFINITION

bool MediaServerMachineState::handle(MachineEvent event)
{
    const MachineTransition* row = findMachineTransition(state_id(), event);
    if (row)
        return mMachine->goState(mMachine->state(row->next), QString::fromLatin1(row->reason));
    if (isTrace())
        Logger::write(Logger::Info, "MediaServerMachineSM",
                      QStringLiteral("Unhandled ") + QLatin1String(eventName(event)) + QStringLiteral(" in ") + name() + QLatin1Char('\n'));
    return false;
}

} // namespace MediaV2
