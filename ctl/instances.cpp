#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::instances(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
