#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::list(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
