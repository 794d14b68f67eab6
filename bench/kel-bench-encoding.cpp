// Packing a "Send" request into a D-Bus value and taking one apart:
//   the channel's converters            one adopted buffer, one read of the whole array
//   against element by element          GVariantBuilder and GVariantIter with the format "y"
//   against memcpy                      build: into a fresh buffer; read: into one that is kept
// and the memory that the element-wise way takes for 1 MiB.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <kel/KELDbus.h>

#include "BenchPeer.h"
#include "KELGlib.h"
#include "PairedMedian.h"

namespace kel::bench {

namespace {

constexpr size_t kHeaderSize = 5;

// The channel's converters without a channel.
class TCCodec : public TCDbus
{
public:
    TCCodec() : TCDbus(true) {}
    using TCDbus::t_ConvertBytes;

    bool SetCallback(int, const TMessageCallback&) override { return false; }
    bool UnSetCallback(int) override { return false; }
};

GVariant* BuildByElement(int type, bool flag, const TBytes& data)
{
    TBytes bytes(kHeaderSize);
    std::memcpy(bytes.data(), &type, 4);
    bytes[4] = flag ? 1 : 0;
    bytes.insert(bytes.end(), data.begin(), data.end());

    GVariantBuilder* const builder = g_variant_builder_new(G_VARIANT_TYPE("ay"));
    for (const unsigned char byte : bytes) {
        g_variant_builder_add(builder, "y", byte);
    }
    GVariant* const value = g_variant_new("(ay)", builder);
    g_variant_builder_unref(builder);
    return value;
}

void ReadByElement(GVariant* value, int& type, bool& flag, TBytes& data)
{
    TBytes bytes;
    GVariantIter* iterator = nullptr;
    g_variant_get(value, "(ay)", &iterator);
    guchar byte = 0;
    while (g_variant_iter_loop(iterator, "y", &byte)) {
        bytes.push_back(byte);
    }
    g_variant_iter_free(iterator);

    std::memcpy(&type, bytes.data(), 4);
    flag = bytes[4] != 0;
    data.assign(bytes.begin() + kHeaderSize, bytes.end());
}

// Keeps the compiler from dropping a copy that nobody looks at.
void Keep(const void* memory) { asm volatile("" : : "g"(memory) : "memory"); }

TSEffort EffortFor(double seconds)
{
    TSEffort effort;
    effort.m_seconds = seconds;
    effort.m_blockSeconds = 0.0005;
    effort.m_sameCalls = false;
    return effort;
}

long StatusKib(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, field.size() + 1, field + ":") == 0) {
            return std::atol(line.c_str() + field.size() + 1);
        }
    }
    return 0;
}

// What a piece of work needs at most beyond what there was, in KiB; in a process of its own, whose
// peak is nothing but that work's.
template <typename Work> long ExtraPeakKib(Work work)
{
    int ends[2];
    if (pipe(ends) != 0) {
        Fail("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const long before = StatusKib("VmRSS");
        work();
        const long extra = StatusKib("VmHWM") - before;
        _exit(write(ends[1], &extra, sizeof(extra)) == sizeof(extra) ? 0 : 1);
    }
    long extra = 0;
    if (child < 0 || read(ends[0], &extra, sizeof(extra)) != sizeof(extra)) {
        Fail("cannot measure memory");
    }
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
    return extra;
}

// How much slower the element-wise way is comes from the two medians rather than round by round:
// what a million small pieces leave behind in the heap burdens whoever has the next turn.
void Row(size_t size, const char* what, const TSPaired& byElement, const TSPaired& byMemcpy,
         const std::string& bound)
{
    std::printf("%8s  %-5s %11s  %13s %8.0f x  %12s %8.2f   %s\n", Size(size).c_str(), what,
                Time(byMemcpy.m_ours).c_str(), Time(byElement.m_baseline).c_str(),
                byElement.m_baseline / byMemcpy.m_ours, Time(byMemcpy.m_baseline).c_str(),
                byMemcpy.m_ratio, bound.c_str());
}

void Compare(size_t size, const TCCodec& codec, TCBounds& bounds)
{
    const TBytes data(size, 0x5a);
    const auto build = [&] {
        GVariant* value = nullptr;
        codec.t_ConvertBytes(7, false, data, value);
        Keep(value);
        SinkVariant(value);
    };
    const auto buildByElement = [&] {
        GVariant* const value = BuildByElement(7, false, data);
        Keep(value);
        SinkVariant(value).reset();
        // The heap merges the million small pieces when somebody next wants a large one: that
        // somebody is charged with it here, not the next turn of the other side.
        std::free(std::malloc(2 * 1024 * 1024));
    };
    const auto buildByMemcpy = [&] {
        unsigned char* const buffer = static_cast<unsigned char*>(std::malloc(kHeaderSize + size));
        const std::unique_ptr<unsigned char, decltype(&std::free)> owner(buffer, &std::free);
        std::memset(buffer, 0, kHeaderSize);
        std::memcpy(buffer + kHeaderSize, data.data(), size);
        Keep(buffer);
    };

    GVariant* floating = nullptr;
    codec.t_ConvertBytes(7, false, data, floating);
    const TGlibPtr<GVariant> value = SinkVariant(floating);
    const TGlibPtr<GVariant> byElement = SinkVariant(BuildByElement(7, false, data));
    if (!g_variant_equal(value.get(), byElement.get())) {
        Fail("the two ways give different values");
    }
    int type = 0;
    bool flag = false;
    TBytes out;
    const auto read = [&] {
        codec.t_ConvertBytes(value.get(), type, flag, out);
        Keep(out.data());
    };
    const auto readByElement = [&] {
        ReadByElement(value.get(), type, flag, out);
        Keep(out.data());
    };
    TBytes kept(size);
    const unsigned char* const stored
        = static_cast<const unsigned char*>(g_variant_get_data(value.get()));
    const auto readByMemcpy = [&] {
        std::memcpy(kept.data(), stored + kHeaderSize, size);
        Keep(kept.data());
    };

    // For small payloads, making the value costs more than copying the bytes.
    const double bound = size >= 1024 * 1024 ? 1.25 : size >= 64 * 1024 ? 1.5 : 0;
    const TSPaired builtByElement = MeasurePair(build, buildByElement, EffortFor(1.5));
    const TSPaired built = MeasurePair(build, buildByMemcpy, EffortFor(1.5));
    Row(size, "build", builtByElement, built,
        bound != 0 ? bounds.AtMost(built.m_ratio, bound) : "");
    const TSPaired readElements = MeasurePair(read, readByElement, EffortFor(1.5));
    const TSPaired copied = MeasurePair(read, readByMemcpy, EffortFor(1.5));
    Row(size, "read", readElements, copied, bound != 0 ? bounds.AtMost(copied.m_ratio, bound) : "");
    if (out != data || kept != data) {
        Fail("the bytes came back changed");
    }
}

// The memory for 1 MiB, built and read. To be called before the heap has grown for other reasons.
std::string CompareMemory(const TCCodec& codec)
{
    const TBytes data(1024 * 1024, 0x5a);
    const auto whole = [&] {
        GVariant* value = nullptr;
        codec.t_ConvertBytes(7, false, data, value);
        int type = 0;
        bool flag = false;
        TBytes out;
        codec.t_ConvertBytes(value, type, flag, out);
    };
    const auto byElement = [&] {
        GVariant* const value = BuildByElement(7, false, data);
        int type = 0;
        bool flag = false;
        TBytes out;
        ReadByElement(value, type, flag, out);
    };
    char text[128];
    std::snprintf(text, sizeof(text), "%.1f MiB, by element %.1f MiB",
                  static_cast<double>(ExtraPeakKib(whole)) / 1024,
                  static_cast<double>(ExtraPeakKib(byElement)) / 1024);
    return text;
}

int Run()
{
    TCBounds bounds;
    const TCCodec codec;
    const std::string memory = CompareMemory(codec);
    std::printf("\"Send\" requests, medians of alternating blocks\n"
                "%8s  %-5s %11s  %13s %10s  %12s %8s   %s\n",
                "payload", "", "channel", "by element", "slower", "memcpy", "ratio", "bound");
    for (const size_t size : {16, 1024, 64 * 1024, 1024 * 1024}) {
        Compare(size, codec, bounds);
    }
    std::printf("\nextra memory at the peak, 1 MiB built and read: %s\n", memory.c_str());
    return bounds.ExitStatus();
}

} // namespace

} // namespace kel::bench

int main() { return kel::bench::Run(); }
