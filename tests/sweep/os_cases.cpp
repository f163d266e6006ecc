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

// A descriptor as a result: 0 and kept for cleaning, or the failure itself.
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

void a_pair(int type)
{
    if (socketpair(AF_UNIX, type, 0, g_pair) != 0)
        abort();
    for (int fd : g_pair) {
        if (write(fd, "data", 4) != 4)
            abort();
    }
}

void a_bound_socket(int type)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(4000);
    const int on = 1;
    g_pair[0] = socket(AF_INET, type, 0);
    setsockopt(g_pair[0], SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(g_pair[0], reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        abort();
}

sockaddr_in listener_address()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(4000);
    return address;
}

void a_listener()
{
    a_bound_socket(SOCK_STREAM);
    listen(g_pair[0], 8);
}

void a_waiting_client()
{
    a_listener();
    const sockaddr_in address = listener_address();
    g_pair[1] = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(g_pair[1], reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        abort();
}

Case plain(const char *name)
{
    Case c(name);
    c.cleaned_by(clean).or_fails_with({-1});
    return c;
}

std::vector<Case> file_cases()
{
    return {
        plain("bv_os_open").prepared_by(a_file).calls([] {
            return keep(bv_os_open(kFile, O_RDWR));
        }),
        plain("bv_os_dev_open").calls([] { return keep(bv_os_dev_open("/dev/null", O_RDWR)); }),
        plain("bv_os_creat").calls([] { return keep(bv_os_creat(kOther, 0600)); }),
        plain("bv_os_close").prepared_by(an_open_file).calls([] {
            const int result = bv_os_close(g_fd);
            g_fd = -1;
            return result;
        }),
        plain("bv_os_read")
            .prepared_by(an_open_file)
            .calls([] { return bv_os_read(g_fd, g_text, 5); })
            .returns({5})
            .or_fails_with({-1, 0, 2}),
        plain("bv_os_write")
            .prepared_by(an_open_file)
            .calls([] { return bv_os_write(g_fd, "abcd", 4); })
            .returns({4})
            .or_fails_with({-1, 2}),
        plain("bv_os_lseek")
            .prepared_by(an_open_file)
            .calls([] { return bv_os_lseek(g_fd, 0, SEEK_END); })
            .returns({5}),
        plain("bv_os_flock").prepared_by(an_open_file).calls([] {
            return bv_os_flock(g_fd, LOCK_EX);
        }),
        plain("bv_os_access").prepared_by(a_file).calls([] { return bv_os_access(kFile, F_OK); }),
        plain("bv_os_stat").prepared_by(a_file).calls([] {
            struct stat st;
            return bv_os_stat(kFile, &st);
        }),
        plain("bv_os_fstat").prepared_by(an_open_file).calls([] {
            struct stat st;
            return bv_os_fstat(g_fd, &st);
        }),
        plain("bv_get_filesize")
            .prepared_by(a_file)
            .calls([] { return bv_get_filesize(kFile); })
            .returns({5}),
        plain("bv_os_remove").prepared_by(a_file).calls([] { return bv_os_remove(kFile); }),
        plain("bv_os_rename").prepared_by(a_file).calls([] { return bv_os_rename(kFile, kOther); }),
        plain("bv_os_mkfifo").calls([] { return bv_os_mkfifo(kOther, 0600); }),
        plain("bv_os_chdir").calls([] { return bv_os_chdir("/scratch"); }),
        plain("bv_os_pipe").calls([] { return bv_os_pipe(g_pair); }),
    };
}

std::vector<Case> stream_cases()
{
    return {
        plain("bv_os_fopen").prepared_by(a_file).calls([] {
            return keep(bv_os_fopen(kFile, "r"));
        }),
        plain("bv_os_fclose").prepared_by(a_stream).calls([] {
            const int result = bv_os_fclose(g_stream);
            g_stream = nullptr;
            return result;
        }),
        plain("bv_os_fread")
            .prepared_by(a_stream)
            .calls([] { return static_cast<int64_t>(bv_os_fread(g_text, 1, 5, g_stream)); })
            .returns({5})
            .or_fails_with({0}),
        plain("bv_os_fwrite")
            .prepared_by(a_stream)
            .calls([] { return static_cast<int64_t>(bv_os_fwrite("abc", 1, 3, g_stream)); })
            .returns({3})
            .or_fails_with({0}),
        plain("bv_os_fseek").prepared_by(a_stream).calls([] {
            return bv_os_fseek(g_stream, 0, SEEK_END);
        }),
        plain("bv_os_fgets").prepared_by(a_stream).calls([] {
            return bv_os_fgets(g_text, sizeof g_text, g_stream) == g_text ? 0 : -1;
        }),
        plain("bv_os_fprintf")
            .prepared_by(a_stream)
            .calls([] { return bv_os_fprintf(g_stream, "%d", 42); })
            .returns({2}),
        plain("bv_os_printf").calls([] { return bv_os_printf("%d", 42); }).returns({2}),
        plain("bv_os_printa").calls([] {
            bv_os_printa("abc", 6);
            return 0;
        }),
        plain("bv_os_printb")
            .calls([] { return bv_os_printb("0123456789abcdef", 16); })
            .returns({2}),
        // A number of many digits takes memory of the bounded scan.
        plain("bv_os_sscanf")
            .prepared_by([] {
                memset(g_digits, '5', sizeof g_digits - 1);
                g_digits[1] = '.';
            })
            .calls([] {
                float number = 0;
                return bv_os_sscanf(g_digits, "%f", &number) == 1 && number > 5 ? 0 : -1;
            }),
        plain("bv_os_popen").calls([] { return keep(bv_os_popen("true", "r")); }).cleaned_by([] {
            if (g_stream != nullptr)
                bv_os_pclose(g_stream);
            g_stream = nullptr;
        }),
        plain("bv_os_pclose").prepared_by([] { g_stream = popen("true", "r"); }).calls([] {
            const int result = bv_os_pclose(g_stream);
            g_stream = nullptr;
            return result;
        }),
    };
}

std::vector<Case> shell_cases()
{
    const auto captured = [] { return strcmp(g_text, "hello") == 0; };
    return {
        plain("bv_os_system").calls([] { return bv_os_system("true"); }),
        plain("bv_os_systemnull").calls([] { return bv_os_systemnull("echo x"); }),
        plain("bv_os_systembk").calls([] { return bv_os_systembk("true"); }),
        plain("bv_os_sysprocess").calls([] {
            return bv_os_sysprocess("true") == -1 ? -1 : 0; // whether there is such a user or not
        }),
        plain("bv_os_systemex")
            .calls([] { return bv_os_systemex(g_text, sizeof g_text, "echo hello"); })
            .or_fails_with({BV_ERR_FAILED, BV_ERR_NO_FILE})
            .works_when(captured),
        plain("bv_os_sysmatch")
            .calls(
                [] { return bv_os_sysmatch(g_text, sizeof g_text, "key", ":", "echo key:hello"); })
            .or_fails_with({BV_ERR_FAILED, BV_ERR_NO_FILE})
            .works_when(captured),
        plain("bv_get_pipe")
            .calls([] {
                bv_get_pipe("echo hello", g_text, sizeof g_text);
                return 0;
            })
            .works_when([] { return strcmp(g_text, "hello\n") == 0; }),
        plain("bv_os_record_init").calls([] { return bv_os_record_init(); }),
        plain("bv_os_record")
            .prepared_by([] { unlink("/tmp/remoteprint"); })
            .calls([] { return bv_os_record("%s", "line"); })
            .returns({4})
            .or_fails_with({-1, BV_ERR_RECORD})
            .works_when([] { return read_file("/tmp/remoteprint") == "line"; }),
        plain("bv_os_record_output")
            .prepared_by([] {
                write_file("/tmp/remoteprint", "line");
                write_file("/tmp/tty", kOther);
            })
            .calls([] {
                bv_os_record_output();
                return 0;
            })
            .works_when([] { return read_file(kOther) == "line"; }),
    };
}

std::vector<Case> socket_cases()
{
    static sockaddr_in address = listener_address();
    static auto *const to = reinterpret_cast<sockaddr *>(&address);
    return {
        plain("bv_os_socket").calls([] { return keep(bv_os_socket(AF_INET, SOCK_DGRAM, 0)); }),
        plain("bv_os_bind").prepared_by([] { g_fd = socket(AF_INET, SOCK_DGRAM, 0); }).calls([] {
            return bv_os_bind(g_fd, to, sizeof address);
        }),
        plain("bv_os_listen").prepared_by([] { a_bound_socket(SOCK_STREAM); }).calls([] {
            return bv_os_listen(g_pair[0], 4);
        }),
        plain("bv_os_accept").prepared_by(a_waiting_client).calls([] {
            return keep(bv_os_accept(g_pair[0], nullptr, nullptr));
        }),
        plain("bv_os_connect")
            .prepared_by([] {
                a_listener();
                g_fd = socket(AF_INET, SOCK_STREAM, 0);
            })
            .calls([] { return bv_os_connect(g_fd, to, sizeof address); }),
        plain("bv_os_shutdown").prepared_by([] { a_pair(SOCK_STREAM); }).calls([] {
            return bv_os_shutdown(g_pair[0]);
        }),
        plain("bv_os_send")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] { return bv_os_send(g_pair[0], "abc", 3, 0); })
            .returns({3}),
        plain("bv_os_sendto")
            .prepared_by([] { a_bound_socket(SOCK_DGRAM); })
            .calls([] { return bv_os_sendto(g_pair[0], "abc", 3, 0, to, sizeof address); })
            .returns({3}),
        plain("bv_os_sendmsg")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] {
                iovec part = {g_text, 3};
                msghdr message = {};
                message.msg_iov = &part;
                message.msg_iovlen = 1;
                return bv_os_sendmsg(g_pair[0], &message, 0);
            })
            .returns({3}),
        plain("bv_os_recv")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] { return bv_os_recv(g_pair[0], g_text, 4, 0); })
            .returns({4})
            .or_fails_with({-1, 0}),
        plain("bv_os_recvfrom")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] { return bv_os_recvfrom(g_pair[0], g_text, 4, 0, nullptr, nullptr); })
            .returns({4}),
        plain("bv_os_recvmsg")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] {
                iovec part = {g_text, 4};
                msghdr message = {};
                message.msg_iov = &part;
                message.msg_iovlen = 1;
                return bv_os_recvmsg(g_pair[0], &message, 0);
            })
            .returns({4}),
        plain("bv_os_setsockopt").prepared_by([] { a_pair(SOCK_STREAM); }).calls([] {
            const int on = 1;
            return bv_os_setsockopt(g_pair[0], SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        }),
        plain("bv_os_ioctl").prepared_by([] { a_pair(SOCK_STREAM); }).calls([] {
            int waiting = 0;
            return bv_os_ioctl(g_pair[0], FIONREAD, &waiting);
        }),
        plain("bv_os_select")
            .prepared_by([] { a_pair(SOCK_STREAM); })
            .calls([] {
                fd_set readable;
                FD_ZERO(&readable);
                FD_SET(g_pair[0], &readable);
                timeval timeout = {5, 0};
                return bv_os_select(g_pair[0] + 1, &readable, nullptr, nullptr, &timeout);
            })
            .returns({1}),
        plain("bv_os_epoll_create").calls([] { return keep(bv_os_epoll_create(1)); }),
        plain("bv_os_epoll_ctl")
            .prepared_by([] {
                a_pair(SOCK_STREAM);
                g_fd = epoll_create(1);
            })
            .calls([] {
                epoll_event event = {};
                event.events = EPOLLIN;
                return bv_os_epoll_ctl(g_fd, EPOLL_CTL_ADD, g_pair[0], &event);
            }),
        plain("bv_os_epoll_wait")
            .prepared_by([] {
                a_pair(SOCK_STREAM);
                g_fd = epoll_create(1);
                epoll_event event = {};
                event.events = EPOLLIN;
                epoll_ctl(g_fd, EPOLL_CTL_ADD, g_pair[0], &event);
            })
            .calls([] {
                epoll_event event;
                return bv_os_epoll_wait(g_fd, &event, 1, 5000);
            })
            .returns({1}),
    };
}

std::vector<Case> memory_and_text_cases()
{
    return {
        plain("bv_os_malloc").calls([] {
            g_block = bv_os_malloc(100);
            return g_block != nullptr ? 0 : -1;
        }),
        plain("bv_os_match").calls([] { return bv_os_match("abc", "b+"); }),
    };
}

} // namespace

std::vector<Case> os_cases()
{
    std::vector<Case> all;
    for (const auto &group :
         {file_cases(), stream_cases(), shell_cases(), socket_cases(), memory_and_text_cases()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

} // namespace sweep
