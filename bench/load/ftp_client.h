// The FTP client side of the load driver: a control connection that sends commands and reads
// replies (multi-line ones included), logs in, and opens passive data connections.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "bench/load/socket.h"

namespace load {

struct Reply {
    int code = 0;
    std::string text;  // the last line, without its line end
};

// How a server under test is reached: its port, who logs in, and where uploads may go.
struct Service {
    std::uint16_t port = 0;
    std::string user;
    std::string password;  // sent only if USER is answered with 331
    std::string upload_dir;  // relative to the served root, empty for the root itself
};

// Bound on every step of the control and data connections.
constexpr std::chrono::milliseconds STEP_LIMIT{30000};

class Control {
public:
    // Connects to the service on 127.0.0.1 and reads nothing yet. `limit` bounds every step of
    // this connection and of its data connections.
    explicit Control(const Service& service, std::chrono::milliseconds limit = STEP_LIMIT);

    void send(std::string_view command);
    Reply read_reply();
    // read_reply, with `after` (the command or step) in front of any error.
    Reply reply_to(std::string_view after);
    // Reads a reply and throws unless its code is `code`.
    Reply expect_reply(int code, std::string_view after);
    // Sends the command and throws unless the reply's code is `code`.
    Reply expect(std::string_view command, int code);

    // Reads the 220 greeting and logs in with USER (and PASS when asked for it).
    void greet_and_login();
    // PASV, then a connection to the address the 227 reply names.
    Socket open_passive();
    // After QUIT: waits until the server closes the control connection.
    void await_close();

private:
    bool next_line(std::string& line);

    const Service& service_;
    std::chrono::milliseconds limit_;
    Socket socket_;
    std::string buffer_;
    std::size_t start_ = 0;
};

}  // namespace load
