// The standard streams: at start-up the descriptors 0, 1 and 2 are opened from the files the
// loader named where they aren't open yet, then streams are made over them. System code.
#include "runtime/context.h"
#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/stdio.h"
#include "runtime/syslog.h"

namespace orlix {

namespace {

constexpr std::uint32_t CREATE_MODE = 0666;
constexpr int EXIT_NO_STREAMS = 123;

// A standard stream made anew leaves its descriptor open: only the record goes.
void drop(FILE*& stream)
{
    if (stream == nullptr)
        return;
    __fsi_discard(stream);
    stream = nullptr;
}

void open_missing(int fd, const char* file)
{
    if (__fdcntl(fd, FDCNTL_GET_FLAGS, 0, nullptr) == 0 || file == nullptr)
        return;
    // The device hands out the lowest free number, which is fd here.
    if (fd == 0) {
        if (open(file, OPEN_READ | OPEN_WRITE, CREATE_MODE) < 0)
            open(file, OPEN_READ);
    } else {
        open(file, OPEN_WRITE | OPEN_CREATE, CREATE_MODE);
    }
}

} // namespace

int __fsi_open_std_streams(LibcContext* context)
{
    drop(context->std_in);
    drop(context->std_out);
    drop(context->std_err);
    context->std_in = fdopen(0, "r");
    if (context->std_in == nullptr)
        return -1;
    context->std_out = fdopen(1, "a");
    if (context->std_out == nullptr)
        return -1;
    context->std_err = fdopen(2, "a");
    if (context->std_err == nullptr)
        return -1;
    setvbuf_mode(context->std_in, isatty(0) ? Buffering::line : Buffering::full);
    setvbuf_mode(context->std_out, isatty(1) ? Buffering::line : Buffering::full);
    setvbuf_mode(context->std_err, Buffering::none);
    return 0;
}

void __fsi_init_std(LibcContext* context)
{
    open_missing(0, context->infn);
    open_missing(1, context->outfn);
    open_missing(2, context->errfn);
    if (__fsi_open_std_streams(context) != 0) {
        syslog(LOG_ERR_LEVEL, "\"%s\": Failed to open std streams", context->program_name);
        exit(EXIT_NO_STREAMS);
    }
}

} // namespace orlix
