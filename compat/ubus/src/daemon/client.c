// SPDX-License-Identifier: ISC
// Connections: accepting them, cutting their input into messages, and their end.

#include "ubusd.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <libubox/usock.h>

enum {
    kInputSize = 65536,
    kAcceptsPerTurn = 16,
    kAcceptPauseMs = 100,
    kClientsOfUser = 64,  // user 0 may have more
    kKeptCount = 1024,    // objects, patterns, subscriptions: of each so many per client
    kKeptBytes = 4194304, // and so many bytes of paths, signatures and patterns
};

static uint8_t input[kInputSize];
static struct avl_tree clients;
static struct avl_tree users;
static struct uloop_fd listener;

// Closed while accounts are looked up, so that there is a descriptor for that.
static int spare = -1;

// The daemon's own socket file.
static dev_t own_device;
static ino_t own_inode;

static void resume_accepting(struct uloop_timeout *timer);
static struct uloop_timeout accept_pause = {.cb = resume_accepting};

static void serve_busy(struct uloop_timeout *timer);
static struct uloop_timeout busy_timer = {.cb = serve_busy};
static LIST_HEAD(busy); // client.of_busy

struct client *client_find(uint32_t id)
{
    struct client *client;
    return avl_find_element(&clients, &id, client, by_id);
}

// Counts one more object, pattern or subscription and its bytes. False when that exceeds a limit.
bool client_keeps(struct client *client, unsigned int *count, size_t bytes)
{
    if (*count >= kKeptCount || bytes > kKeptBytes - client->kept.bytes ||
        !user_may_have(client->user, client->user->kept + bytes))
        return false;
    (*count)++;
    client->kept.bytes += bytes;
    client->user->kept += bytes;
    return true;
}

void client_releases(struct client *client, size_t bytes)
{
    client->kept.bytes -= bytes;
    client->user->kept -= bytes;
}

bool user_may_have(const struct user *user, size_t bytes)
{
    return user->uid == 0 || bytes <= kUserMaximum;
}

// Charges the client's user for something that is not served yet. False when that is too much.
bool client_stores(struct client *client, size_t bytes)
{
    if (!user_may_have(client->user, client->user->unserved + bytes))
        return false;
    client->user->unserved += bytes;
    return true;
}

void client_gives_back(struct client *client, size_t bytes)
{
    client->user->unserved -= bytes;
}

static void resume_accepting(struct uloop_timeout *timer)
{
    if (uloop_fd_add(&listener, ULOOP_READ | ULOOP_BLOCKING) != 0)
        uloop_timeout_set(timer, kAcceptPauseMs);
}

static struct user *user_enter(uint32_t uid)
{
    struct user *user;
    user = avl_find_element(&users, &uid, user, by_uid);
    if (user == NULL) {
        user = calloc(1, sizeof(*user));
        if (user == NULL)
            return NULL;
        user->uid = uid;
        user->by_uid.key = &user->uid;
        avl_insert(&users, &user->by_uid);
    } else if (uid != 0 && user->clients >= kClientsOfUser) {
        return NULL;
    }
    user->clients++;
    return user;
}

static void user_leave(struct user *user)
{
    if (user == NULL || --user->clients > 0)
        return;
    avl_delete(&users, &user->by_uid);
    free(user);
}

// Gives the client another turn soon, without waiting for its socket.
void client_goes_on(struct client *client)
{
    if (!list_empty(&client->of_busy))
        return;
    list_add_tail(&client->of_busy, &busy);
    if (!busy_timer.pending)
        uloop_timeout_set(&busy_timer, 0);
}

static bool is_spent(const struct client *client)
{
    return client->work >= kWorkPerTurn;
}

// What a message is charged with while it is not complete. Short ones are free: a user who has too
// much otherwise can still be served.
static size_t partial_charge(size_t size)
{
    return size > kInputSize ? size : 0;
}

static bool partial_resize(struct client *client, size_t size)
{
    if (!client_stores(client, partial_charge(size)))
        return false;

    uint8_t *bytes = realloc(client->partial.bytes, size);
    if (bytes == NULL) {
        client_gives_back(client, partial_charge(size));
        return false;
    }
    client->partial.bytes = bytes;
    client->partial.size = size;
    return true;
}

static void partial_clear(struct client *client)
{
    if (client->partial.bytes == NULL)
        return;
    client_gives_back(client, partial_charge(client->partial.size));
    free(client->partial.bytes);
    memset(&client->partial, 0, sizeof(client->partial));
}

// Each object that goes causes an event.
static void client_remove(struct client *client)
{
    while (!list_empty(&client->objects)) {
        if (is_spent(client)) {
            client_goes_on(client);
            return;
        }
        object_remove(list_first_entry(&client->objects, struct object, of_owner));
    }
    output_flush(); // while this client can still be charged
    queue_sender_left(client);
    list_del(&client->of_busy);
    user_leave(client->user);
    free(client->accounts);
    free(client);
}

static void client_close(struct client *client)
{
    client->ending = true;
    client->broken = true;
    client->gone = true;
    avl_delete(&clients, &client->by_id);
    uloop_fd_delete(&client->sock);
    output_forget(client);
    lookups_forget(client);
    close(client->sock.fd);
    partial_clear(client);
    free(client->rest.bytes);
    client_remove(client);

    // A descriptor is free again: do not let those in the backlog wait for the pause to end.
    if (accept_pause.pending) {
        uloop_timeout_cancel(&accept_pause);
        resume_accepting(&accept_pause);
    }
}

static void serve(struct client *client, const uint8_t *bytes, size_t length)
{
    struct message message;
    if (message_parse(&message, bytes, length))
        request_handle(client, &message);
}

// The size of the message whose first bytes are given, header included; 0 when no message can have
// such a length.
static size_t message_size(const uint8_t *bytes)
{
    size_t length = body_length(bytes);
    if (length < kWordLength || padded(length) > UBUS_MAX_MSGLEN)
        return 0;
    return kHeaderLength + length;
}

// Keeps the beginning of a message, `size` bytes long in all, until the rest comes.
static bool partial_begin(struct client *client, const uint8_t *bytes, size_t length, size_t size)
{
    if (!partial_resize(client, size))
        return false;
    memcpy(client->partial.bytes, bytes, length);
    client->partial.length = length;
    return true;
}

// Keeps input until the client's next turn.
static bool rest_keep(struct client *client, const uint8_t *bytes, size_t length)
{
    client->rest.bytes = malloc(length);
    if (client->rest.bytes == NULL)
        return false;
    memcpy(client->rest.bytes, bytes, length);
    client->rest.length = length;
    client_goes_on(client);
    return true;
}

// Serves every whole message, while the client's turn lasts, and keeps what is left. False when the
// stream is malformed.
static bool serve_input(struct client *client, const uint8_t *bytes, size_t length)
{
    while (length > 0) {
        if (is_spent(client))
            return rest_keep(client, bytes, length);
        if (length < kMessageMinimum)
            return partial_begin(client, bytes, length, kMessageMinimum);

        size_t size = message_size(bytes);
        if (size == 0)
            return false;
        if (length < size)
            return partial_begin(client, bytes, length, size);

        serve(client, bytes, size);
        bytes += size;
        length -= size;
    }
    return true;
}

// More of a partial message is there; serves the message if it is complete now. `bytes` is what
// came after it and is moved past what the message still needed.
static bool serve_partial(struct client *client, const uint8_t **bytes, size_t *length)
{
    if (client->partial.size == kMessageMinimum) {
        size_t size = message_size(client->partial.bytes);
        if (size == 0 || !partial_resize(client, size))
            return false;
    }

    size_t missing = client->partial.size - client->partial.length;
    size_t take = missing < *length ? missing : *length;
    memcpy(client->partial.bytes + client->partial.length, *bytes, take);
    client->partial.length += take;
    *bytes += take;
    *length -= take;

    if (client->partial.length == client->partial.size) {
        serve(client, client->partial.bytes, client->partial.size);
        partial_clear(client);
    }
    return true;
}

// Serves `length` freshly read bytes: the partial message's own first, then those in `input`.
static bool take_input(struct client *client, size_t length)
{
    const uint8_t *bytes = input;
    size_t missing = client->partial.size - client->partial.length;
    if (length < missing) {
        client->partial.length += length;
        return true;
    }
    client->partial.length += missing;
    length -= missing;
    if (client->partial.size > 0 && !serve_partial(client, &bytes, &length))
        return false;
    return serve_input(client, bytes, length);
}

// One read: what is missing of a partial message goes straight to its place.
static ssize_t read_more(struct client *client)
{
    struct iovec parts[] = {{NULL, 0}, {input, sizeof(input)}};
    ssize_t length;
    if (client->partial.size > 0) {
        parts[0].iov_base = client->partial.bytes + client->partial.length;
        parts[0].iov_len = client->partial.size - client->partial.length;
    }
    do {
        if (parts[0].iov_len == 0)
            length = recv(client->sock.fd, input, sizeof(input), MSG_DONTWAIT);
        else
            length = readv(client->sock.fd, parts, 2);
    } while (length < 0 && errno == EINTR);
    return length;
}

static bool serve_rest(struct client *client)
{
    uint8_t *bytes = client->rest.bytes;
    size_t length = client->rest.length;
    client->rest.bytes = NULL;
    client->rest.length = 0;
    bool alive = serve_input(client, bytes, length);
    free(bytes);
    return alive;
}

// Reads once, or everything that is left when the client has hung up. False at the end of what it
// sent.
static bool read_on(struct client *client)
{
    do {
        ssize_t length = read_more(client);
        if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return !client->ending;
        if (length <= 0 || !take_input(client, (size_t)length))
            return false;
    } while (client->ending && client->rest.bytes == NULL);
    return true;
}

static void end_turn(struct client *client, bool alive)
{
    output_flush();
    if (alive)
        output_watch(client);
    else
        client_close(client);
    output_flush();
}

static void client_event(struct uloop_fd *sock, unsigned int events)
{
    struct client *client = container_of(sock, struct client, sock);
    bool alive = true;
    client->work = 0;
    client->ending = client->ending || sock->eof || sock->error;
    if ((events & ULOOP_WRITE) != 0 && !client->ending) {
        output_resume(client);
        lookups_resume(client);
    }
    if (client->rest.bytes == NULL && ((events & ULOOP_READ) != 0 || client->ending))
        alive = read_on(client);
    end_turn(client, alive);
}

static void serve_busy(struct uloop_timeout *timer)
{
    if (list_empty(&busy)) // the last one was closed meanwhile
        return;

    struct client *client = list_first_entry(&busy, struct client, of_busy);
    list_del_init(&client->of_busy);
    client->work = 0;
    if (client->gone) {
        client_remove(client);
        output_flush();
    } else {
        bool alive = client->rest.bytes == NULL || serve_rest(client);
        if (alive && client->ending && client->rest.bytes == NULL)
            alive = read_on(client);
        end_turn(client, alive);
    }
    if (!list_empty(&busy))
        uloop_timeout_set(timer, 0);
}

static void put_account(uint8_t *to, uint32_t attr, const char *name, size_t length)
{
    memcpy(put_attr(to, attr, length), name, length);
}

// Whether an account that was not found is missing, and not just impossible to look up now.
static bool is_missing(int error)
{
    return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// Who the client is, as forwarded calls tell it. Both names, or none for an account without
// entries. False when they cannot be found out.
static bool find_accounts(struct client *client, const struct ucred *who)
{
    errno = 0;
    const struct passwd *user = getpwuid(who->uid);
    if (user == NULL)
        return is_missing(errno);
    errno = 0;
    const struct group *group = getgrgid(who->gid);
    if (group == NULL)
        return is_missing(errno);

    size_t user_length = strlen(user->pw_name) + 1;
    size_t group_length = strlen(group->gr_name) + 1;
    size_t user_size = padded(kWordLength + user_length);
    size_t length = user_size + padded(kWordLength + group_length);
    client->accounts = calloc(1, length);
    if (client->accounts == NULL)
        return false;
    client->accounts_length = length;
    put_account(client->accounts, UBUS_ATTR_USER, user->pw_name, user_length);
    put_account(client->accounts + user_size, UBUS_ATTR_GROUP, group->gr_name, group_length);
    return true;
}

static bool reserve_spare(void)
{
    if (spare < 0)
        spare = fcntl(listener.fd, F_DUPFD_CLOEXEC, 0);
    return spare >= 0;
}

// Counts the client among its user's and finds its names.
static bool identify(struct client *client)
{
    struct ucred who;
    socklen_t size = sizeof(who);
    if (getsockopt(client->sock.fd, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0)
        return false;
    client->user = user_enter(who.uid);
    if (client->user == NULL)
        return false;
    close(spare);
    spare = -1;
    bool found = find_accounts(client, &who);
    reserve_spare();
    return found;
}

// The greeting must arrive in one piece: client libraries read it with one call.
static void greet(struct client *client)
{
    uint8_t bytes[kMessageMinimum];
    struct iovec part = {bytes, sizeof(bytes)};
    put_be32(put_header(bytes, UBUS_MSG_HELLO, 0, client->id), kWordLength);
    output_send(client, (struct origin){.from = NULL}, &part, 1);
    output_flush();
}

static bool watch(struct client *client)
{
    client->events = ULOOP_READ;
    return uloop_fd_add(&client->sock, ULOOP_READ | ULOOP_BLOCKING) == 0;
}

static void client_open(int fd)
{
    struct client *client = calloc(1, sizeof(*client));
    if (client == NULL) {
        close(fd);
        return;
    }
    client->sock.fd = fd;
    client->sock.cb = client_event;
    INIT_LIST_HEAD(&client->of_busy);
    INIT_LIST_HEAD(&client->objects);
    INIT_LIST_HEAD(&client->lookups);
    output_init(client);
    if (!ids_insert(&clients, &client->by_id, &client->id)) {
        close(fd);
        free(client);
        return;
    }
    if (identify(client) && watch(client))
        greet(client);
    else
        client_close(client);
}

// The backlog stays readable while accepting fails, so stop watching it for a while.
static void pause_accepting(void)
{
    uloop_fd_delete(&listener);
    uloop_timeout_set(&accept_pause, kAcceptPauseMs);
}

static void accept_clients(struct uloop_fd *sock, unsigned int events)
{
    (void)events;
    for (int i = 0; i < kAcceptsPerTurn; i++) {
        if (!reserve_spare()) {
            pause_accepting();
            return;
        }

        int fd = accept4(sock->fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            client_open(fd);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            pause_accepting();
            return;
        }
    }
}

// Removes a socket that a daemon left behind. One that still answers, and any other kind of file,
// stays.
static bool make_way(const char *path)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return errno == ENOENT;
    if (!S_ISSOCK(status.st_mode)) {
        errno = EEXIST;
        return false;
    }

    int fd = usock(USOCK_UNIX | USOCK_NONBLOCK, path, NULL);
    if (fd >= 0 || errno == EAGAIN) {
        if (fd >= 0)
            close(fd);
        errno = EADDRINUSE;
        return false;
    }
    return errno == ECONNREFUSED && unlink(path) == 0;
}

bool clients_listen(const char *path)
{
    struct stat status;
    ids_init(&clients);
    ids_init(&users);
    if (!make_way(path))
        return false;

    mode_t old = umask(0111);
    listener.fd = usock(USOCK_UNIX | USOCK_SERVER | USOCK_NONBLOCK, path, NULL);
    umask(old);
    if (listener.fd < 0)
        return false;
    if (lstat(path, &status) == 0) {
        own_device = status.st_dev;
        own_inode = status.st_ino;
    }

    listener.cb = accept_clients;
    return uloop_fd_add(&listener, ULOOP_READ | ULOOP_BLOCKING) == 0;
}

// Another daemon's socket may be in the place of this one's by now.
void clients_end(const char *path)
{
    struct stat status;
    if (lstat(path, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_dev == own_device &&
        status.st_ino == own_inode)
        unlink(path);
}
