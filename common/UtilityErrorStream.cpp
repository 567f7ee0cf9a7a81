#include "common/UtilityErrorStream.h"

#include "common/Traceback.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <typeinfo>

namespace tarvik {

UtilityErrorStream uerr;

UtilityErrorStreamBuf::~UtilityErrorStreamBuf()
{
    repeat_on_standard_output();
}

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    const char character = traits_type::to_char_type(c);
    std::cerr.put(character);
    pending_ += character;
    return c;
}

int UtilityErrorStreamBuf::sync()
{
    repeat_on_standard_output();
    return 0;
}

void UtilityErrorStreamBuf::repeat_on_standard_output()
{
    std::cerr.flush();
    std::cout << pending_;
    std::cout.flush();
    pending_.clear();
}

UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr)
{
    init(&buffer_);  // the buffer is a member, so it did not exist yet when the base was built
}

UtilityErrorStream::~UtilityErrorStream()
{
    flush();
}

template <class E>
void reportException(const E& e)
{
    const char* name = typeid(e).name();
    if (*name == '*')
        ++name;
    uerr << "Fatal error: " << demangled(name) << "(" << e.what() << ")" << std::endl;
    if (const auto* const traceback = dynamic_cast<const Traceback*>(&e))
        uerr << *traceback;
}

template void reportException<std::exception>(const std::exception& e);

void reportUntypedException()
{
    uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;
}

void terminateByExceptionUnsafe()
{
    if (std::current_exception() == nullptr)
        std::abort();  // a rethrow of nothing would come back here, again and again
    try {
        throw;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Unexpected error: %s\n", e.what());
    } catch (...) {
        std::fputs("Unexpected error\n", stderr);
    }
    std::exit(1);
}

}  // namespace tarvik

void oxa_set_terminate()
{
    std::set_terminate(tarvik::terminateByExceptionUnsafe);
}
