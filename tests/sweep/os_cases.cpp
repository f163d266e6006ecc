// SPDX-License-Identifier: ISC
// Files, streams, the shell, sockets, waiting, memory and text.

#include "sweep/sweep.h"

#include "support/files.h"

#include <bv/os.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sweep {

namespace {

constexpr char kFile[] = "/scratch/file";
constexpr char kOther[] = "/scratch/other";

int g_fd = -1;
int g_pair[2] = {-1, -1};
FILE *g_stream;
void *g_block;
char g_text[256];
char g_digits[5000];

#define KEEP(function, ...) Case(#function).calls([] { return keep(function(__VA_ARGS__)); })

// A result that is 0 when there is a descriptor or stream, which is kept for cleaning.
int64_t keep(int fd)
{
    g_fd = fd;
    return fd >= 0 ? 0 : fd;
}

int64_t keep(FILE *stream)
{
    g_stream = stream;
    return stream != nullptr ? 0 : -1;
}

// The same for what was closed: it is forgotten, whatever closing it reported.
int64_t gone(int result)
{
    g_fd = -1;
    g_stream = nullptr;
    return result;
}

void clean()
{
    for (int *fd : {&g_fd, &g_pair[0], &g_pair[1]}) {
        give_back(*fd);
        *fd = -1;
    }
    if (g_stream != nullptr)
        fclose(g_stream);
    g_stream = nullptr;
    bv_os_free(g_block);
    g_block = nullptr;
    memset(g_text, 0, sizeof g_text);
    unlink(kOther);
}

void a_file()
{
    write_file(kFile, "text\n");
}

void an_open_file()
{
    a_file();
    g_fd = open(kFile, O_RDWR);
}

void a_stream()
{
    a_file();
    g_stream = fopen(kFile, "r+");
}

void a_pair()
{
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, g_pair) != 0)
        abort();
    for (int fd : g_pair) {
        if (write(fd, "data", 4) != 4)
            abort();
    }
}

// ---- sockets of one address ----

sockaddr_in g_address;
auto *const g_to = reinterpret_cast<sockaddr *>(&g_address);

void a_socket(int type)
{
    g_address.sin_family = AF_INET;
    g_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    g_address.sin_port = htons(4000);
    g_fd = socket(AF_INET, type, 0);
}

void a_bound_socket(int type)
{
    a_socket(type);
    const int on = 1;
    g_pair[0] = g_fd;
    g_fd = -1;
    setsockopt(g_pair[0], SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(g_pair[0], g_to, sizeof g_address) != 0)
        abort();
}

void a_listener()
{
    a_bound_socket(SOCK_STREAM);
    listen(g_pair[0], 8);
}

void a_waiting_client()
{
    a_listener();
    g_pair[1] = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(g_pair[1], g_to, sizeof g_address) != 0)
        abort();
}

// One part of the text as a message.
msghdr *a_message(size_t length)
{
    static iovec part;
    static msghdr message;
    part = {g_text, length};
    message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return &message;
}

epoll_event *an_event()
{
    static epoll_event event;
    event = {};
    event.events = EPOLLIN;
    return &event;
}

void an_epoll()
{
    a_pair();
    g_fd = epoll_create(1);
}

const int kOn = 1;
struct stat g_stat;

std::vector<Case> file_cases()
{
    return {
        KEEP(bv_os_open, kFile, O_RDWR).prepared_by(a_file),
        KEEP(bv_os_dev_open, "/dev/null", O_RDWR),
        KEEP(bv_os_creat, kOther, 0600),
        Case("bv_os_close").calls([] { return gone(bv_os_close(g_fd)); }).prepared_by(an_open_file),
        CALL(bv_os_read, g_fd, g_text, 5)
            .prepared_by(an_open_file)
            .returns({5})
            .or_fails_with({-1, 0, 2}),
        CALL(bv_os_write, g_fd, "abcd", 4)
            .prepared_by(an_open_file)
            .returns({4})
            .or_fails_with({-1, 2}),
        CALL(bv_os_lseek, g_fd, 0, SEEK_END).prepared_by(an_open_file).returns({5}),
        CALL(bv_os_flock, g_fd, LOCK_EX).prepared_by(an_open_file),
        CALL(bv_os_access, kFile, F_OK).prepared_by(a_file),
        CALL(bv_os_stat, kFile, &g_stat).prepared_by(a_file),
        CALL(bv_os_fstat, g_fd, &g_stat).prepared_by(an_open_file),
        CALL(bv_get_filesize, kFile).prepared_by(a_file).returns({5}),
        CALL(bv_os_remove, kFile).prepared_by(a_file),
        CALL(bv_os_rename, kFile, kOther).prepared_by(a_file),
        CALL(bv_os_mkfifo, kOther, 0600),
        CALL(bv_os_chdir, "/scratch"),
        CALL(bv_os_pipe, g_pair),
    };
}

std::vector<Case> stream_cases()
{
    return {
        KEEP(bv_os_fopen, kFile, "r").prepared_by(a_file),
        Case("bv_os_fclose")
            .calls([] { return gone(bv_os_fclose(g_stream)); })
            .prepared_by(a_stream),
        CALL(bv_os_fread, g_text, 1, 5, g_stream)
            .prepared_by(a_stream)
            .returns({5})
            .or_fails_with({0}),
        CALL(bv_os_fwrite, "abc", 1, 3, g_stream)
            .prepared_by(a_stream)
            .returns({3})
            .or_fails_with({0}),
        CALL(bv_os_fseek, g_stream, 0, SEEK_END).prepared_by(a_stream),
        Case("bv_os_fgets").prepared_by(a_stream).calls([] {
            return bv_os_fgets(g_text, sizeof g_text, g_stream) == g_text ? 0 : -1;
        }),
        CALL(bv_os_fprintf, g_stream, "%d", 42).prepared_by(a_stream).returns({2}),
        CALL(bv_os_printf, "%d", 42).returns({2}),
        RUN(bv_os_printa, "abc", 6),
        CALL(bv_os_printb, "0123456789abcdef", 16).returns({2}),
        // A number of many digits takes memory of the bounded scan.
        Case("bv_os_sscanf")
            .prepared_by([] {
                memset(g_digits, '5', sizeof g_digits - 1);
                g_digits[1] = '.';
            })
            .calls([] {
                float number = 0;
                return bv_os_sscanf(g_digits, "%f", &number) == 1 && number > 5 ? 0 : -1;
            }),
        KEEP(bv_os_popen, "true", "r").cleaned_by([] {
            if (g_stream != nullptr)
                gone(bv_os_pclose(g_stream));
        }),
        Case("bv_os_pclose").prepared_by([] { g_stream = popen("true", "r"); }).calls([] {
            return gone(bv_os_pclose(g_stream));
        }),
    };
}

std::vector<Case> shell_cases()
{
    const auto captured = [] { return strcmp(g_text, "hello") == 0; };
    return {
        CALL(bv_os_system, "true"),
        CALL(bv_os_systemnull, "echo x"),
        CALL(bv_os_systembk, "true"),
        Case("bv_os_sysprocess").calls([] {
            return bv_os_sysprocess("true") == -1 ? -1 : 0; // whether there is such a user or not
        }),
        CALL(bv_os_systemex, g_text, sizeof g_text, "echo hello")
            .or_fails_with({BV_ERR_FAILED, BV_ERR_NO_FILE})
            .works_when(captured),
        CALL(bv_os_sysmatch, g_text, sizeof g_text, "key", ":", "echo key:hello")
            .or_fails_with({BV_ERR_FAILED, BV_ERR_NO_FILE})
            .works_when(captured),
        RUN(bv_get_pipe, "echo hello", g_text, sizeof g_text).works_when([] {
            return strcmp(g_text, "hello\n") == 0;
        }),
        CALL(bv_os_record_init),
        CALL(bv_os_record, "%s", "line")
            .prepared_by([] { unlink("/tmp/remoteprint"); })
            .returns({4})
            .or_fails_with({-1, BV_ERR_RECORD})
            .works_when([] { return read_file("/tmp/remoteprint") == "line"; }),
        RUN(bv_os_record_output)
            .prepared_by([] {
                write_file("/tmp/remoteprint", "line");
                write_file("/tmp/tty", kOther);
            })
            .works_when([] { return read_file(kOther) == "line"; }),
    };
}

std::vector<Case> socket_cases()
{
    return {
        KEEP(bv_os_socket, AF_INET, SOCK_DGRAM, 0),
        CALL(bv_os_bind, g_fd, g_to, sizeof g_address).prepared_by([] { a_socket(SOCK_DGRAM); }),
        CALL(bv_os_listen, g_pair[0], 4).prepared_by([] { a_bound_socket(SOCK_STREAM); }),
        KEEP(bv_os_accept, g_pair[0], nullptr, nullptr).prepared_by(a_waiting_client),
        CALL(bv_os_connect, g_fd, g_to, sizeof g_address).prepared_by([] {
            a_listener();
            a_socket(SOCK_STREAM);
        }),
        CALL(bv_os_shutdown, g_pair[0]).prepared_by(a_pair),
        CALL(bv_os_send, g_pair[0], "abc", 3, 0).prepared_by(a_pair).returns({3}),
        CALL(bv_os_sendto, g_pair[0], "abc", 3, 0, g_to, sizeof g_address)
            .prepared_by([] { a_bound_socket(SOCK_DGRAM); })
            .returns({3}),
        CALL(bv_os_sendmsg, g_pair[0], a_message(3), 0).prepared_by(a_pair).returns({3}),
        CALL(bv_os_recv, g_pair[0], g_text, 4, 0)
            .prepared_by(a_pair)
            .returns({4})
            .or_fails_with({-1, 0}),
        CALL(bv_os_recvfrom, g_pair[0], g_text, 4, 0, nullptr, nullptr)
            .prepared_by(a_pair)
            .returns({4}),
        CALL(bv_os_recvmsg, g_pair[0], a_message(4), 0).prepared_by(a_pair).returns({4}),
        CALL(bv_os_setsockopt, g_pair[0], SOL_SOCKET, SO_KEEPALIVE, &kOn, sizeof kOn)
            .prepared_by(a_pair),
        Case("bv_os_ioctl").prepared_by(a_pair).calls([] {
            int waiting = 0;
            return bv_os_ioctl(g_pair[0], FIONREAD, &waiting);
        }),
        Case("bv_os_select")
            .prepared_by(a_pair)
            .calls([] {
                fd_set readable;
                FD_ZERO(&readable);
                FD_SET(g_pair[0], &readable);
                timeval timeout = {5, 0};
                return bv_os_select(g_pair[0] + 1, &readable, nullptr, nullptr, &timeout);
            })
            .returns({1}),
        KEEP(bv_os_epoll_create, 1),
        CALL(bv_os_epoll_ctl, g_fd, EPOLL_CTL_ADD, g_pair[0], an_event()).prepared_by(an_epoll),
        CALL(bv_os_epoll_wait, g_fd, an_event(), 1, 5000)
            .prepared_by([] {
                an_epoll();
                epoll_ctl(g_fd, EPOLL_CTL_ADD, g_pair[0], an_event());
            })
            .returns({1}),
        Case("bv_os_malloc").calls([] {
            g_block = bv_os_malloc(100);
            return g_block != nullptr ? 0 : -1;
        }),
        CALL(bv_os_match, "abc", "b+"),
    };
}

} // namespace

std::vector<Case> os_cases()
{
    return usually({-1}, clean, {file_cases(), stream_cases(), shell_cases(), socket_cases()});
}

} // namespace sweep
