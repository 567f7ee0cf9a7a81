#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::check_host(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
