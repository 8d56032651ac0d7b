// Streams over descriptors: each a record on the process heap in the context's list, with a
// buffer that holds read-ahead bytes or bytes to write, never both. System code.
#include "runtime/stdio.h"

#include <cstddef>
#include <cstring>

#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/thread.h"

namespace orlix {

namespace {

constexpr std::uint32_t CREATE_MODE = 0666;
constexpr int FCNTL_GETSTATUS = 2;
constexpr int FCNTL_SETSTATUS = 1;
constexpr int FCNTL_SETFLAGS = 4;

// Holds a stream's lock unless the calling thread holds it already by flockfile.
class StreamGuard {
public:
    explicit StreamGuard(FILE* stream) : stream_(stream), taken_(stream->owner != __pthread_self())
    {
        if (taken_)
            MutexLock(&stream_->lock);
    }
    ~StreamGuard()
    {
        if (taken_)
            MutexUnlock(&stream_->lock);
    }
    StreamGuard(const StreamGuard&) = delete;
    StreamGuard& operator=(const StreamGuard&) = delete;

private:
    FILE* stream_;
    bool taken_;
};

FILE* make_stream(int fd, int flags)
{
    auto* stream = static_cast<FILE*>(calloc(1, sizeof(FILE)));
    if (stream == nullptr)
        return nullptr;
    stream->buffer = static_cast<char*>(malloc(STREAM_BUFFER_SIZE));
    if (stream->buffer == nullptr || MutexInit(&stream->lock) != MUTEX_OK) {
        free(stream->buffer);
        free(stream);
        return nullptr;
    }
    stream->fd = fd;
    stream->flags = flags;
    stream->size = STREAM_BUFFER_SIZE;
    list_init(&stream->lock_link);
    LibcContext* context = g_libc_context;
    __libc_lock(context);
    list_append(&context->streams, &stream->link);
    __libc_unlock(context);
    return stream;
}

// Takes the stream out of the list and frees it; its descriptor stays as it is.
void release_stream(FILE* stream)
{
    LibcContext* context = g_libc_context;
    __libc_lock(context);
    list_remove(&stream->link);
    __libc_unlock(context);
    MutexDestroy(&stream->lock);
    free(stream->buffer);
    free(stream);
}

bool write_all(int fd, const char* data, std::size_t length)
{
    while (length > 0) {
        std::int64_t n = write(fd, data, length);
        if (n <= 0)
            return false;
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

// Writes out the bytes to write, or drops the read-ahead (moving the descriptor back over it).
int flush_locked(FILE* stream)
{
    if (stream->reading) {
        std::size_t unread = stream->end - stream->start;
        if (unread != 0)
            lseek64(stream->fd, -static_cast<std::int64_t>(unread), 1);
        stream->reading = false;
        stream->start = stream->end = 0;
        return 0;
    }
    bool ok = write_all(stream->fd, stream->buffer, stream->end);
    stream->end = 0;
    if (!ok) {
        stream->error = true;
        return EOF_VALUE;
    }
    return 0;
}

bool put_locked(FILE* stream, const char* data, std::size_t length)
{
    if (stream->flags & STREAM_NO_WRITE) {
        stream->error = true;
        errno = ERR_BADF;
        return false;
    }
    if (stream->reading && flush_locked(stream) != 0)
        return false;
    if (stream->buffering == Buffering::none || length >= stream->size) {
        if (flush_locked(stream) != 0)
            return false;
        if (!write_all(stream->fd, data, length)) {
            stream->error = true;
            return false;
        }
        return true;
    }
    if (stream->end + length > stream->size && flush_locked(stream) != 0)
        return false;
    std::memcpy(stream->buffer + stream->end, data, length);
    stream->end += length;
    if (stream->buffering == Buffering::line && std::memchr(data, '\n', length) != nullptr)
        return flush_locked(stream) == 0;
    return true;
}

// Makes read-ahead bytes available; false at the end of the file or on failure.
bool fill_locked(FILE* stream)
{
    if (stream->flags & STREAM_NO_READ) {
        stream->error = true;
        errno = ERR_BADF;
        return false;
    }
    if (!stream->reading) {
        if (flush_locked(stream) != 0)
            return false;
        stream->reading = true;
        stream->start = stream->end = 0;
    }
    if (stream->start < stream->end)
        return true;
    std::int64_t n = read(stream->fd, stream->buffer, stream->size);
    stream->start = 0;
    stream->end = n > 0 ? static_cast<std::size_t>(n) : 0;
    if (n == 0)
        stream->eof = true;
    if (n < 0)
        stream->error = true;
    return n > 0;
}

struct StreamSink {
    FormatSink base;
    FILE* stream;
    bool failed;
};

void put_to_stream(FormatSink* sink, const char* text, std::size_t length)
{
    auto* s = reinterpret_cast<StreamSink*>(sink);
    if (!s->failed && !put_locked(s->stream, text, length))
        s->failed = true;
}

} // namespace

FILE* __get_std_stream(int number)
{
    LibcContext* context = g_libc_context;
    switch (number) {
    case 0: return context->std_in;
    case 1: return context->std_out;
    case 2: return context->std_err;
    default: return nullptr;
    }
}

FILE* fdopen(int fd, const char* mode)
{
    int stream_flags = 0;
    if (__fsi_parse_mode_f(mode, &stream_flags) < 0)
        return nullptr;
    if (stream_flags & STREAM_APPEND) {
        // A descriptor whose status can't be read is taken as it is: its first write will tell.
        int status = fcntl(fd, FCNTL_GETSTATUS);
        if (status >= 0 && !(static_cast<std::uint32_t>(status) & FD_STATUS_APPEND))
            fcntl(fd, FCNTL_SETSTATUS, static_cast<std::uint32_t>(status) | FD_STATUS_APPEND);
    }
    return make_stream(fd, stream_flags);
}

FILE* fopen(const char* path, const char* mode)
{
    int stream_flags = 0;
    int flags = __fsi_parse_mode_f(mode, &stream_flags);
    if (flags < 0)
        return nullptr;
    int fd = open(path, static_cast<std::uint32_t>(flags), CREATE_MODE);
    if (fd < 0)
        return nullptr;
    if (flags & OPEN_CLOEXEC)
        fcntl(fd, FCNTL_SETFLAGS, FD_CLOEXEC_FLAG);
    FILE* stream = make_stream(fd, stream_flags);
    if (stream == nullptr)
        close(fd);
    return stream;
}

int fflush(FILE* stream)
{
    if (stream != nullptr) {
        StreamGuard guard(stream);
        return flush_locked(stream);
    }
    LibcContext* context = g_libc_context;
    int result = 0;
    __libc_lock(context);
    for (ListHead* link = context->streams.next; link != &context->streams; link = link->next) {
        FILE* each = list_record<FILE>(link, offsetof(FILE, link));
        StreamGuard guard(each);
        if (flush_locked(each) != 0)
            result = EOF_VALUE;
    }
    __libc_unlock(context);
    return result;
}

void __fsi_discard(FILE* stream)
{
    fflush(stream);
    release_stream(stream);
}

int fclose(FILE* stream)
{
    int result;
    {
        StreamGuard guard(stream);
        result = flush_locked(stream);
    }
    if (close(stream->fd) != 0)
        result = EOF_VALUE;
    LibcContext* context = g_libc_context;
    if (stream == context->std_in)
        context->std_in = nullptr;
    if (stream == context->std_out)
        context->std_out = nullptr;
    if (stream == context->std_err)
        context->std_err = nullptr;
    release_stream(stream);
    return result;
}

char* fgets(char* buffer, int size, FILE* stream)
{
    if (size <= 0)
        return nullptr;
    StreamGuard guard(stream);
    int stored = 0;
    while (stored < size - 1) {
        if (!fill_locked(stream))
            break;
        char c = stream->buffer[stream->start++];
        buffer[stored++] = c;
        if (c == '\n')
            break;
    }
    if (stored == 0)
        return nullptr;
    buffer[stored] = '\0';
    return buffer;
}

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* stream)
{
    if (size == 0 || count == 0)
        return 0;
    StreamGuard guard(stream);
    return put_locked(stream, static_cast<const char*>(data), size * count) ? count : 0;
}

std::size_t fread(void* data, std::size_t size, std::size_t count, FILE* stream)
{
    if (size == 0 || count == 0)
        return 0;
    StreamGuard guard(stream);
    auto* out = static_cast<char*>(data);
    std::size_t wanted = size * count;
    std::size_t got = 0;
    while (got < wanted && fill_locked(stream)) {
        std::size_t take = stream->end - stream->start;
        if (take > wanted - got)
            take = wanted - got;
        std::memcpy(out + got, stream->buffer + stream->start, take);
        stream->start += take;
        got += take;
    }
    return got / size;
}

int fputs(const char* text, FILE* stream)
{
    StreamGuard guard(stream);
    return put_locked(stream, text, std::strlen(text)) ? 0 : EOF_VALUE;
}

int fputc(int c, FILE* stream)
{
    char byte = static_cast<char>(c);
    StreamGuard guard(stream);
    return put_locked(stream, &byte, 1) ? static_cast<unsigned char>(byte) : EOF_VALUE;
}

int puts(const char* text)
{
    FILE* out = __get_std_stream(1);
    if (out == nullptr)
        return EOF_VALUE;
    StreamGuard guard(out);
    return put_locked(out, text, std::strlen(text)) && put_locked(out, "\n", 1) ? 0 : EOF_VALUE;
}

int setvbuf_mode(FILE* stream, Buffering buffering)
{
    StreamGuard guard(stream);
    if (flush_locked(stream) != 0)
        return EOF_VALUE;
    stream->buffering = buffering;
    return 0;
}

int vfprintf(FILE* stream, const char* format, std::va_list args)
{
    if (stream == nullptr) {
        errno = ERR_BADF;
        return -1;
    }
    StreamGuard guard(stream);
    StreamSink sink{{put_to_stream}, stream, false};
    int count = __vformat(&sink.base, format, args);
    return sink.failed ? -1 : count;
}

int fprintf(FILE* stream, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    int count = vfprintf(stream, format, args);
    va_end(args);
    return count;
}

int printf(const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    int count = vfprintf(__get_std_stream(1), format, args);
    va_end(args);
    return count;
}

void flockfile(FILE* stream)
{
    ThreadRecord* self = __pthread_self();
    if (stream->owner == self)
        return;
    MutexLock(&stream->lock);
    stream->owner = self;
    list_append(&self->locked_streams, &stream->lock_link);
}

void funlockfile(FILE* stream)
{
    if (stream->owner != __pthread_self())
        return;
    list_remove(&stream->lock_link);
    stream->owner = nullptr;
    MutexUnlock(&stream->lock);
}

void __fsi_unlock_thread_streams(ThreadRecord* thread)
{
    while (!list_empty(&thread->locked_streams)) {
        FILE* stream = list_record<FILE>(thread->locked_streams.next, offsetof(FILE, lock_link));
        list_remove(&stream->lock_link);
        stream->owner = nullptr;
        MutexUnlock(&stream->lock);
    }
}

void __fsi_fcloseall()
{
    LibcContext* context = g_libc_context;
    for (;;) {
        __libc_lock(context);
        FILE* stream = list_empty(&context->streams)
                           ? nullptr
                           : list_record<FILE>(context->streams.next, offsetof(FILE, link));
        __libc_unlock(context);
        if (stream == nullptr)
            return;
        fclose(stream);
    }
}

} // namespace orlix
