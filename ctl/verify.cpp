#include "ctl/Trouble.h"
#include "ctl/commands.h"

int tarvik::ctl::verify(int /*argc*/, char** /*argv*/)
{
    throw Trouble("not built yet");
}
