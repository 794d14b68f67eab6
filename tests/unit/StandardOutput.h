#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

/// What a function and its children write to a standard stream, byte by byte. In memory, because a
/// test may have made every directory unwritable.
inline std::string OutputOf(FILE* stream, const std::function<void()>& function)
{
    fflush(stream);
    const int descriptor = fileno(stream);
    const int before = dup(descriptor);
    const int memory = memfd_create("output", MFD_CLOEXEC);
    if (before < 0 || memory < 0 || dup2(memory, descriptor) < 0) {
        throw std::runtime_error("the stream cannot be recorded");
    }

    function();

    fflush(stream);
    dup2(before, descriptor);
    close(before);
    std::string text(static_cast<size_t>(lseek(memory, 0, SEEK_END)), '\0');
    const ssize_t length = pread(memory, text.data(), text.size(), 0);
    close(memory);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
}

inline std::string StandardOutputOf(const std::function<void()>& function)
{
    return OutputOf(stdout, function);
}

inline std::string StandardErrorOf(const std::function<void()>& function)
{
    return OutputOf(stderr, function);
}
