#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::plan(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
