#include <cassert>

#include <boost/assert.hpp>

// What Boost calls when one of its assertions fails. They end the process, as assert() does.

void boost::assertion_failed(const char* expression, const char* function, const char* file,
                             long line)
{
    __assert_fail(expression, file, static_cast<unsigned int>(line), function);
}

void boost::assertion_failed_msg(const char* expression, const char*, const char* function,
                                 const char* file, long line)
{
    assertion_failed(expression, function, file, line);
}
