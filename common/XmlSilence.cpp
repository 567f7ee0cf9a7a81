#include "common/XmlSilence.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>

#include <cstddef>
#include <new>
#include <utility>

namespace tarvik {

namespace {

// Set free when memory runs out, for what the library still does until it is asked to stop.
constexpr std::size_t kReserve = 64 * 1024;

void print_nothing(void*, const char*, ...) { }

/// The allocators that stand behind the library's for now, and whether one of them has failed.
struct Watch {
    xmlFreeFunc free;
    xmlMallocFunc allocate;
    xmlMallocFunc allocateAtomic;
    xmlReallocFunc reallocate;
    xmlStrdupFunc duplicate;
    int users;
    bool failed;
    void* reserve;
};
Watch watch = {};

/// The library has paths without memory that use what they have freed, so it is kept from them.
template <class Allocate>
auto watched(Allocate allocate)
{
    const auto memory = allocate();
    if (memory != nullptr)
        return memory;
    watch.failed = true;
    watch.free(std::exchange(watch.reserve, nullptr));
    return allocate();
}

void watch_allocations()
{
    if (watch.users++ > 0)
        return;
    static_cast<void>(xmlGcMemGet(&watch.free, &watch.allocate, &watch.allocateAtomic,
                                  &watch.reallocate, &watch.duplicate));
    watch.reserve = watch.allocate(kReserve);
    watch.failed = watch.reserve == nullptr;
    static_cast<void>(xmlGcMemSetup(
        watch.free,
        [](std::size_t size) { return watched([size] { return watch.allocate(size); }); },
        [](std::size_t size) { return watched([size] { return watch.allocateAtomic(size); }); },
        [](void* memory, std::size_t size) {
            const auto allocate = [memory, size] { return watch.reallocate(memory, size); };
            return size == 0 ? allocate() : watched(allocate);  // it frees, and gives nothing
        },
        [](const char* text) { return watched([text] { return watch.duplicate(text); }); }));
}

void unwatch_allocations()
{
    if (--watch.users > 0)
        return;
    static_cast<void>(xmlGcMemSetup(watch.free, watch.allocate, watch.allocateAtomic,
                                    watch.reallocate, watch.duplicate));
    watch.free(std::exchange(watch.reserve, nullptr));
}

}  // namespace

XmlSilence::XmlSilence()
    : errorContext_(xmlStructuredErrorContext),
      errorHandler_(reinterpret_cast<void (*)()>(xmlStructuredError)),
      printContext_(xmlGenericErrorContext), printer_(xmlGenericError),
      entityLoader_(reinterpret_cast<void (*)()>(xmlGetExternalEntityLoader()))
{
    watch_allocations();
    xmlSetStructuredErrorFunc(nullptr, [](void*, auto*) { /* nothing */ });
    xmlSetGenericErrorFunc(nullptr, print_nothing);
    xmlSetExternalEntityLoader(
        [](const char*, const char*, xmlParserCtxt*) -> xmlParserInput* { return nullptr; });
}

XmlSilence::~XmlSilence()
{
    xmlSetExternalEntityLoader(reinterpret_cast<xmlExternalEntityLoader>(entityLoader_));
    xmlSetGenericErrorFunc(printContext_, printer_);
    xmlSetStructuredErrorFunc(errorContext_,
                              reinterpret_cast<xmlStructuredErrorFunc>(errorHandler_));
    unwatch_allocations();
}

void XmlSilence::require_memory()
{
    if (out_of_memory())
        throw std::bad_alloc();
}

bool XmlSilence::out_of_memory() noexcept
{
    return watch.failed;
}

}  // namespace tarvik
