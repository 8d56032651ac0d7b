// Control connections: CRLF command lines out, replies in through one buffer per connection.
#include "bench/load/ftp_client.h"

#include <cstdio>
#include <stdexcept>

namespace load {
namespace {

// The reply code of a line that starts with three digits, else 0.
int code_of(std::string_view line)
{
    if (line.size() < 3)
        return 0;
    int code = 0;
    for (char c : line.substr(0, 3)) {
        if (c < '0' || c > '9')
            return 0;
        code = code * 10 + (c - '0');
    }
    return code;
}

}  // namespace

Control::Control(const Service& service, std::chrono::milliseconds limit)
    : service_(service), limit_(limit), socket_(connect_to(LOOPBACK, service.port, limit))
{
}

void Control::send(std::string_view command)
{
    std::string line(command);
    line += "\r\n";
    socket_.send_all(line);
}

bool Control::next_line(std::string& line)
{
    for (;;) {
        std::size_t end = buffer_.find('\n', start_);
        if (end != std::string::npos) {
            std::size_t stop = end > start_ && buffer_[end - 1] == '\r' ? end - 1 : end;
            line.assign(buffer_, start_, stop - start_);
            start_ = end + 1;
            return true;
        }
        buffer_.erase(0, start_);
        start_ = 0;
        char chunk[4096];
        std::size_t got = socket_.receive(chunk);
        if (got == 0)
            return false;
        buffer_.append(chunk, got);
    }
}

Reply Control::read_reply()
{
    std::string line;
    if (!next_line(line))
        throw std::runtime_error("control connection closed before a reply");
    Reply reply{code_of(line), line};
    if (reply.code == 0)
        throw std::runtime_error("malformed reply: " + line);
    // A line "ddd-" opens a reply that the line "ddd " ends.
    if (line.size() > 3 && line[3] == '-') {
        std::string last = line.substr(0, 3) + " ";
        do {
            if (!next_line(line))
                throw std::runtime_error("control connection closed inside a reply");
        } while (line.compare(0, 4, last) != 0);
        reply.text = line;
    }
    return reply;
}

Reply Control::reply_to(std::string_view after)
{
    try {
        return read_reply();
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string(after) + ": " + error.what());
    }
}

Reply Control::expect_reply(int code, std::string_view after)
{
    Reply reply = reply_to(after);
    if (reply.code != code)
        throw std::runtime_error(std::string(after) + ": expected " + std::to_string(code) +
                                 ", got \"" + reply.text + "\"");
    return reply;
}

Reply Control::expect(std::string_view command, int code)
{
    send(command);
    return expect_reply(code, command);
}

void Control::greet_and_login()
{
    expect_reply(220, "greeting");
    send("USER " + service_.user);
    Reply reply = reply_to("USER");
    if (reply.code == 331)
        reply = expect("PASS " + service_.password, 230);
    else if (reply.code != 230)
        throw std::runtime_error("USER: got \"" + reply.text + "\"");
}

Socket Control::open_passive()
{
    Reply reply = expect("PASV", 227);
    unsigned h[4], p[2];
    std::size_t open = reply.text.find('(');
    if (open == std::string::npos ||
        std::sscanf(reply.text.c_str() + open, "(%u,%u,%u,%u,%u,%u)", &h[0], &h[1], &h[2], &h[3],
                    &p[0], &p[1]) != 6)
        throw std::runtime_error("unreadable PASV reply: " + reply.text);
    std::uint32_t address = h[0] << 24 | h[1] << 16 | h[2] << 8 | h[3];
    return connect_to(address, static_cast<std::uint16_t>(p[0] << 8 | p[1]), limit_);
}

void Control::await_close()
{
    std::string line;
    bool more = false;
    try {
        more = next_line(line);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string("close after QUIT: ") + error.what());
    }
    if (more)
        throw std::runtime_error("unexpected line after QUIT: " + line);
}

}  // namespace load
