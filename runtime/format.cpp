// The formatter's engine and the buffer functions over it. Workers format on 16 KiB stacks, so
// the engine keeps no more than one number's digits on the stack and never recurses.
#include "runtime/format.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "runtime/errno.h"

namespace orlix {

namespace {

constexpr int ERROR_OVERFLOW = 8;
constexpr int ERROR_INVALID = 11;

enum Flag : unsigned { LEFT = 1, PLUS = 2, BLANK = 4, ALTERNATE = 8, ZERO = 16 };
enum class Length { NONE, CHAR, SHORT, LONG, LONG_LONG, SIZE, MAX, PTRDIFF };

// One conversion directive, as written between the '%' and the conversion character.
struct Directive {
    unsigned flags;
    int width;     // 0 when none
    int precision; // -1 when none
    Length length;
    char conversion;
};

// The sink and the count of characters handed to it so far.
struct Output {
    FormatSink* sink;
    std::size_t count;

    void put(const char* text, std::size_t length)
    {
        if (length == 0)
            return;
        sink->put(sink, text, length);
        count += length;
    }

    void repeat(char fill, std::size_t n)
    {
        constexpr std::size_t PIECE = 16;
        const char* piece = fill == '0' ? "0000000000000000" : "                ";
        for (; n > PIECE; n -= PIECE)
            put(piece, PIECE);
        if (n != 0)
            put(piece, n);
    }
};

unsigned flag_of(char c)
{
    switch (c) {
    case '-': return LEFT;
    case '+': return PLUS;
    case ' ': return BLANK;
    case '#': return ALTERNATE;
    case '0': return ZERO;
    default: return 0;
    }
}

// Reads decimal digits at *cursor into *value; false if the number does not fit an int.
bool parse_count(const char** cursor, int* value)
{
    long long n = 0;
    const char* p = *cursor;
    for (; *p >= '0' && *p <= '9'; ++p) {
        n = n * 10 + (*p - '0');
        if (n > INT_MAX)
            return false;
    }
    *cursor = p;
    *value = static_cast<int>(n);
    return true;
}

Length parse_length(const char** cursor)
{
    const char* p = *cursor;
    Length length = Length::NONE;
    switch (*p) {
    case 'h': length = p[1] == 'h' ? Length::CHAR : Length::SHORT; break;
    case 'l': length = p[1] == 'l' ? Length::LONG_LONG : Length::LONG; break;
    case 'z': length = Length::SIZE; break;
    case 'j': length = Length::MAX; break;
    case 't': length = Length::PTRDIFF; break;
    default: return Length::NONE;
    }
    *cursor = p + (length == Length::CHAR || length == Length::LONG_LONG ? 2 : 1);
    return length;
}

// Reads what follows a '%' up to and including the conversion character, taking the arguments
// of any '*'. 0, or the error number of a directive that is cut off or too wide.
int parse_directive(const char** cursor, Directive* d, std::va_list* args)
{
    const char* p = *cursor;
    d->flags = 0;
    for (unsigned flag; (flag = flag_of(*p)) != 0; ++p)
        d->flags |= flag;

    d->width = 0;
    if (*p == '*') {
        ++p;
        int width = va_arg(*args, int);
        if (width == INT_MIN)
            return ERROR_OVERFLOW;
        if (width < 0)
            d->flags |= LEFT;
        d->width = width < 0 ? -width : width;
    } else if (!parse_count(&p, &d->width)) {
        return ERROR_OVERFLOW;
    }

    d->precision = -1;
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            ++p;
            int precision = va_arg(*args, int);
            d->precision = precision < 0 ? -1 : precision; // negative: as if none was given
        } else if (!parse_count(&p, &d->precision)) {
            return ERROR_OVERFLOW;
        }
    }

    d->length = parse_length(&p);
    d->conversion = *p;
    if (d->conversion == '\0')
        return ERROR_INVALID;
    *cursor = p + 1;
    return 0;
}

long long signed_argument(Length length, std::va_list* args)
{
    switch (length) {
    case Length::CHAR: return static_cast<signed char>(va_arg(*args, int));
    case Length::SHORT: return static_cast<short>(va_arg(*args, int));
    case Length::LONG: return va_arg(*args, long);
    case Length::LONG_LONG: return va_arg(*args, long long);
    case Length::SIZE: return va_arg(*args, std::make_signed_t<std::size_t>);
    case Length::MAX: return va_arg(*args, std::intmax_t);
    case Length::PTRDIFF: return va_arg(*args, std::ptrdiff_t);
    case Length::NONE: break;
    }
    return va_arg(*args, int);
}

unsigned long long unsigned_argument(Length length, std::va_list* args)
{
    switch (length) {
    case Length::CHAR: return static_cast<unsigned char>(va_arg(*args, unsigned));
    case Length::SHORT: return static_cast<unsigned short>(va_arg(*args, unsigned));
    case Length::LONG: return va_arg(*args, unsigned long);
    case Length::LONG_LONG: return va_arg(*args, unsigned long long);
    case Length::SIZE: return va_arg(*args, std::size_t);
    case Length::MAX: return va_arg(*args, std::uintmax_t);
    case Length::PTRDIFF: return va_arg(*args, std::make_unsigned_t<std::ptrdiff_t>);
    case Length::NONE: break;
    }
    return va_arg(*args, unsigned);
}

// Text padded with blanks to the width; the '0' flag does not apply to text.
void put_padded(Output& out, const Directive& d, const char* text, std::size_t length)
{
    const std::size_t pad = static_cast<std::size_t>(d.width) > length ? d.width - length : 0;
    if (!(d.flags & LEFT))
        out.repeat(' ', pad);
    out.put(text, length);
    if (d.flags & LEFT)
        out.repeat(' ', pad);
}

unsigned base_of(char conversion)
{
    switch (conversion) {
    case 'o': return 8;
    case 'x':
    case 'X':
    case 'p': return 16;
    default: return 10;
    }
}

// A number of conversion d i u o x X or p, given as its magnitude and its sign character (0 for
// none): sign, prefix, zeros up to the precision (or the width with '0'), digits, all padded.
void put_integer(Output& out, const Directive& d, unsigned long long magnitude, char sign)
{
    const unsigned base = base_of(d.conversion);
    const char* set = d.conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    char buffer[24]; // 22 octal digits of 64 bits
    char* digits = buffer + sizeof buffer;
    for (unsigned long long rest = magnitude; rest != 0; rest /= base)
        *--digits = set[rest % base];
    const std::size_t digit_count = static_cast<std::size_t>(buffer + sizeof buffer - digits);

    const char* prefix = "";
    if (d.conversion == 'p' || ((d.flags & ALTERNATE) && d.conversion == 'x' && magnitude != 0))
        prefix = "0x";
    else if ((d.flags & ALTERNATE) && d.conversion == 'X' && magnitude != 0)
        prefix = "0X";
    const std::size_t prefix_length = std::strlen(prefix);

    // A zero with precision 0 has no digits at all.
    const std::size_t precision = d.precision < 0 ? 1 : static_cast<std::size_t>(d.precision);
    std::size_t zeros = precision > digit_count ? precision - digit_count : 0;
    if (d.conversion == 'o' && (d.flags & ALTERNATE) && zeros == 0)
        zeros = 1; // the first digit must be 0, and a leading digit is never 0
    std::size_t length = (sign != 0) + prefix_length + zeros + digit_count;
    const std::size_t width = static_cast<std::size_t>(d.width);
    if ((d.flags & ZERO) && !(d.flags & LEFT) && d.precision < 0 && width > length) {
        zeros += width - length;
        length = width;
    }

    const std::size_t pad = width > length ? width - length : 0;
    if (!(d.flags & LEFT))
        out.repeat(' ', pad);
    if (sign != 0)
        out.put(&sign, 1);
    out.put(prefix, prefix_length);
    out.repeat('0', zeros);
    out.put(digits, digit_count);
    if (d.flags & LEFT)
        out.repeat(' ', pad);
}

void put_signed(Output& out, const Directive& d, long long value)
{
    const unsigned long long magnitude = static_cast<unsigned long long>(value);
    if (value < 0)
        put_integer(out, d, 0ULL - magnitude, '-');
    else
        put_integer(out, d, magnitude, d.flags & PLUS ? '+' : d.flags & BLANK ? ' ' : 0);
}

void put_string(Output& out, const Directive& d, const char* text)
{
    if (text == nullptr) // as the host's library does: the word if it fits the precision
        text = d.precision < 0 || d.precision >= 6 ? "(null)" : "";
    std::size_t length = 0;
    // With a precision the text need not be terminated: read no further than it.
    while ((d.precision < 0 || length < static_cast<std::size_t>(d.precision)) && text[length] != '\0')
        ++length;
    put_padded(out, d, text, length);
}

void put_pointer(Output& out, const Directive& d, const void* pointer)
{
    if (pointer == nullptr) {
        put_padded(out, d, "(nil)", 5);
        return;
    }
    const char sign = d.flags & PLUS ? '+' : d.flags & BLANK ? ' ' : 0;
    put_integer(out, d, reinterpret_cast<std::uintptr_t>(pointer), sign);
}

// One parsed directive; written is the directive's own text, for a conversion it doesn't know.
void convert(Output& out, const Directive& d, std::va_list* args, const char* written,
             std::size_t written_length)
{
    switch (d.conversion) {
    case 'd':
    case 'i': put_signed(out, d, signed_argument(d.length, args)); break;
    case 'u':
    case 'o':
    case 'x':
    case 'X': put_integer(out, d, unsigned_argument(d.length, args), 0); break;
    case 'p': put_pointer(out, d, va_arg(*args, const void*)); break;
    case 'c': {
        const char c = static_cast<char>(va_arg(*args, int));
        put_padded(out, d, &c, 1);
        break;
    }
    case 's': put_string(out, d, va_arg(*args, const char*)); break;
    case '%': out.put("%", 1); break;
    default: out.put(written, written_length); break;
    }
}

// A sink over a character array; room excludes the place of the terminator.
struct BufferSink : FormatSink {
    char* next;
    std::size_t room;
};

void put_in_buffer(FormatSink* sink, const char* text, std::size_t length)
{
    auto* buffer = static_cast<BufferSink*>(sink);
    const std::size_t taken = length < buffer->room ? length : buffer->room;
    if (taken == 0)
        return;
    std::memcpy(buffer->next, text, taken);
    buffer->next += taken;
    buffer->room -= taken;
}

} // namespace

int __vformat(FormatSink* sink, const char* format, std::va_list args)
{
    std::va_list own;
    va_copy(own, args);
    Output out{sink, 0};
    int error = 0;
    const char* p = format;
    while (*p != '\0' && error == 0 && out.count <= INT_MAX) {
        const char* literal = p;
        while (*p != '\0' && *p != '%')
            ++p;
        if (p != literal)
            out.put(literal, static_cast<std::size_t>(p - literal));
        if (*p == '\0')
            break;
        const char* directive = p++;
        Directive d;
        error = parse_directive(&p, &d, &own);
        if (error == 0)
            convert(out, d, &own, directive, static_cast<std::size_t>(p - directive));
    }
    va_end(own);
    if (error == 0 && out.count > INT_MAX)
        error = ERROR_OVERFLOW;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return static_cast<int>(out.count);
}

int vsnprintf(char* out, std::size_t size, const char* format, std::va_list args)
{
    BufferSink sink{{put_in_buffer}, out, size == 0 ? 0 : size - 1};
    const int length = __vformat(&sink, format, args);
    if (size != 0)
        *sink.next = '\0';
    return length;
}

int vsprintf(char* out, const char* format, std::va_list args)
{
    BufferSink sink{{put_in_buffer}, out, SIZE_MAX};
    const int length = __vformat(&sink, format, args);
    *sink.next = '\0';
    return length;
}

int snprintf(char* out, std::size_t size, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    const int length = vsnprintf(out, size, format, args);
    va_end(args);
    return length;
}

int sprintf(char* out, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    const int length = vsprintf(out, format, args);
    va_end(args);
    return length;
}

} // namespace orlix
