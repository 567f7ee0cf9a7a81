#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::deploy(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
