#include "common/signals.h"

#include <csignal>

namespace tarvik {

namespace {

struct WriteSignal {
    int number;
    void (*before)(int);  ///< SIG_ERR: left as it was
};

WriteSignal write_signals[] = {{SIGPIPE, SIG_ERR}, {SIGXFSZ, SIG_ERR}};

}  // namespace

void ignore_write_signals()
{
    for (WriteSignal& each : write_signals)
        each.before = std::signal(each.number, SIG_IGN);
}

void restore_write_signals()
{
    for (const WriteSignal& each : write_signals) {
        if (each.before != SIG_ERR)
            static_cast<void>(std::signal(each.number, each.before));
    }
}

}  // namespace tarvik
