// A real session on a worker whose 16 KiB stack was painted before it started: the deepest
// handlers (RNTO of two paths of 4094 bytes, MLSD and LIST of long names and link targets, PWD of a
// long directory, the first date formatted) must leave at least 4 KiB of it untouched.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include "daemon/ftpd.h"
#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/heap.h"
#include "runtime/tcp_client.h"
#include "runtime/thread.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t STACK = 16384;
constexpr unsigned char PAINT = 0xa5;
#if defined(__SANITIZE_ADDRESS__)
// Instrumented frames are larger: the bound is only that the stack holds.
constexpr std::size_t HIGH_WATER_LIMIT = STACK - 512;
#else
constexpr std::size_t HIGH_WATER_LIMIT = 12 * 1024;
#endif

alignas(64) unsigned char worker_stack[STACK];

// A client on host sockets: lines out, replies in.
class Client {
public:
    explicit Client(std::uint16_t port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval bound{10, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    }
    ~Client() { ::close(fd_); }
    bool connected() const { return connected_; }

    // The reply's code, after its last line.
    int reply()
    {
        for (;;) {
            std::string line;
            char c;
            while (::recv(fd_, &c, 1, 0) == 1) {
                line += c;
                if (c == '\n')
                    break;
            }
            last_ = line;
            if (line.size() < 4)
                return -1;
            if (line[3] == ' ')
                return std::stoi(line.substr(0, 3));
        }
    }
    int command(const std::string& text)
    {
        std::string line = text + "\r\n";
        ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL);
        return reply();
    }
    // PASV and the connection to the port it names; the data socket.
    int passive()
    {
        if (command("PASV") != 227)
            return -1;
        unsigned a, b, c, d, high, low;
        std::sscanf(last_.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &a, &b, &c, &d, &high, &low);
        int data = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<std::uint16_t>(high << 8 | low));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(data, reinterpret_cast<sockaddr*>(&to), sizeof to);
        return data;
    }
    // A listing command with its data, read to the end; the final reply's code.
    int listing(const std::string& text, std::string* data_out)
    {
        int data = passive();
        std::string line = text + "\r\n";
        ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL);
        int first = reply();
        char buffer[4096];
        for (ssize_t n; (n = ::recv(data, buffer, sizeof buffer, 0)) > 0;)
            data_out->append(buffer, static_cast<std::size_t>(n));
        ::close(data);
        return first == 150 ? reply() : first;
    }

private:
    int fd_;
    bool connected_;
    std::string last_;
};

std::size_t high_water()
{
    std::size_t untouched = 0;
    while (untouched < STACK && worker_stack[untouched] == PAINT)
        ++untouched;
    return STACK - untouched;
}

} // namespace

TEST(WorkerStack, DeepestHandlersStayWithinTheBound)
{
    fs::path root = fs::temp_directory_path() / ("orlix-stack-" + std::to_string(::getpid()));
    fs::remove_all(root);
    // A directory 3,840 bytes deep, a long name and a link with a long target in it.
    std::string deep;
    for (int i = 0; i < 15; ++i)
        deep += "/" + std::string(255, static_cast<char>('a' + i));
    fs::create_directories(root.string() + deep);
    fs::path inside = root.string() + deep;
    std::string long_name(200, 'n');
    fs::create_directory(inside / long_name);
    fs::create_symlink(std::string(2000, 't'), inside / "link");

    // The listener and an accepted control socket on the tcpip device.
    orlix::Device* tcp = orlix::GetTCPDev();
    int listener = orlix::td_sockcreat(tcp, orlix::AF_INET_VALUE, orlix::SOCK_STREAM_VALUE, orlix::IPPROTO_TCP_VALUE);
    orlix::sockaddr_in address{};
    address.sin_family = orlix::AF_INET_VALUE;
    address.sin_addr = ::htonl(INADDR_LOOPBACK);
    ASSERT_EQ(orlix::td_sockbind(tcp, listener, &address, sizeof address), 1);
    ASSERT_EQ(orlix::td_socklisten(tcp, listener, 4), 1);
    std::uint32_t length = sizeof address;
    ASSERT_EQ(orlix::td_sockgetname(tcp, listener, &address, &length), 1);
    Client client(::ntohs(address.sin_port));
    ASSERT_TRUE(client.connected());
    orlix::Handle reply_port = orlix::CreateSharedMsgPort(0, 0, 0, 0x40004);
    orlix::IOreq* accept = orlix::CreateIOreq(tcp, 0, 3, 4096, reply_port);
    ASSERT_NE(accept, nullptr);
    auto* block = reinterpret_cast<orlix::TcpAcceptParams*>(orlix::ioreq_area(accept));
    block->socket = listener;
    block->length = sizeof address;
    block->address = orlix::ioreq_area(accept) + 64;
    accept->params = block;
    accept->command = orlix::TCP_ACCEPT;
    ASSERT_EQ(orlix::SyncIO(accept), orlix::IO_DONE);

    std::string root_text = root.string();
    orlix::FtpdServer server{};
    server.root = root_text.data();
    server.root_length = static_cast<std::uint32_t>(root_text.size());
    server.idle_timeout_ms = 10000;
    server.transfer_timeout_ms = 10000;
    server.worker_port = static_cast<std::uint64_t>(orlix::_SL_CreateMsgPort(0, 0));
    server.listen_address.sin_family = orlix::AF_INET_VALUE;

    std::memset(worker_stack, PAINT, sizeof worker_stack);
    orlix::pthread_attr_t attr;
    orlix::pthread_attr_init(&attr);
    attr.stack_address = worker_stack;
    attr.stack_size = STACK;
    orlix::pthread_attr_setdetachstate(&attr, 1);
    struct {
        orlix::FtpdServer* server;
        std::uint32_t socket;
    }* argument = static_cast<decltype(argument)>(orlix::malloc(16));
    argument->server = &server;
    argument->socket = static_cast<std::uint32_t>(block->new_socket);
    orlix::pthread_t worker;
    ASSERT_EQ(orlix::pthread_create(&worker, &attr, orlix::ftpd_worker, argument), 0);

    EXPECT_EQ(client.reply(), 220);
    EXPECT_EQ(client.command("USER stack"), 230);
    for (int i = 0; i < 15; ++i)
        ASSERT_EQ(client.command("CWD " + std::string(255, static_cast<char>('a' + i))), 250);
    EXPECT_EQ(client.command("PWD"), 257);
    std::string listed;
    EXPECT_EQ(client.listing("MLSD", &listed), 226);
    EXPECT_NE(listed.find(long_name), std::string::npos);
    EXPECT_EQ(client.listing("LIST", &listed), 226);
    EXPECT_EQ(client.command("RNFR " + std::string(250, 'x')), 350);
    EXPECT_EQ(client.command("RNTO " + std::string(250, 'y')), 504) << "two built paths of 4094 bytes";
    EXPECT_EQ(client.command("RNFR " + long_name), 350);
    EXPECT_EQ(client.command("RNTO renamed"), 250);
    EXPECT_EQ(client.command("QUIT"), 221);

    orlix::Message end{};
    ASSERT_EQ(orlix::_SL_RecvMsgPtr(static_cast<orlix::Handle>(server.worker_port), &end, 10000), orlix::STATUS_DONE)
        << "the worker did not end";
    EXPECT_EQ(end.type, orlix::MSG_WORKER_ENDED);
    std::size_t used = high_water();
    EXPECT_LE(used, HIGH_WATER_LIMIT) << "the worker used " << used << " bytes of its 16 KiB stack";
    std::printf("worker stack high water: %zu bytes\n", used);
    orlix::td_sockclose(tcp, static_cast<int>(end.word2));
    orlix::td_sockclose(tcp, listener);
    fs::remove_all(root);
}
