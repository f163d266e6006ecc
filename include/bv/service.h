/* SPDX-License-Identifier: ISC */
/**
 * @file service.h
 * The owner's and the caller's kit: libbvservice, on top of libbv.
 *
 * **An owner** lists its families and functions in one structure and calls bv_service_run(). The
 * kit loads templates and data files, publishes the functions, and publishes the object
 * NAME.config, through which other programs and bv-ctl read and change the families by name. It
 * saves them without losing what other services keep in the same file.
 *
 *     static const struct bv_service_family families[] = {
 *         {.name = LAN_FAMILY, .size = LAN_SIZE, .changed = lan_changed},
 *     };
 *     static const struct bv_service service = {.size = sizeof(struct bv_service),
 *         .name = "network", .families = families, .n_families = 1};
 *
 *     int main(void) { return bv_service_run(&service); }
 *
 * **A caller** opens a client and gets, sets and watches families of any service. The client finds
 * the owner, and connects again after the owner or the bus was restarted.
 *
 * True of every function here:
 *
 * - A process is one owner, on the thread that runs bv_service_run(). All functions of the owner's
 *   half belong to that thread; handlers and callbacks run on it.
 * - A client belongs to one thread at a time. The bus library shares buffers between connections,
 *   so all clients of a process, and the owner, belong on one thread.
 * - SIGINT and SIGTERM still end a program that uses a client; an owner takes both and SIGCHLD.
 *   Either ignores SIGPIPE from then on, unless the program handles it, and so do programs that it
 *   starts.
 * - Families are called by their names, the file names of their templates: "lan.json".
 * - Texts that are passed in are copied, unless it says otherwise; structures of the owner stay the
 *   caller's and must not change while it runs.
 * - Results are the codes of bv/status.h, or a status of the bus below 0x1000;
 *   bv_service_text() gives either as words.
 */
#ifndef BV_SERVICE_H
#define BV_SERVICE_H

#include <bv/ubus.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Owner
 * @{
 */

/** Where a family is saved: bv_service_family.store. */
typedef enum bv_service_store {
    BV_SERVICE_USER = 0,    /* /config/work/userdata.json */
    BV_SERVICE_PRIVATE = 1, /* /config/work/privdata.json */
    BV_SERVICE_FACTORY = 2  /* /config/factory/factory.json, by bv_service_commit_factory() only */
} bv_service_store;

/** For bv_service_family.flags: other programs see the names of the parameters, not the values. */
#define BV_SERVICE_HIDDEN 1u

/** For bv_service.flags: save the families before the service ends. If that fails, syslog has the
 * cause; the exit status stays the same. */
#define BV_SERVICE_COMMIT_AT_END 1u

/**
 * Called before a change; must change nothing.
 *
 * @param was       the image now; null when the instance is to be added
 * @param is        the image wanted; null when the instance is to be deleted
 * @param instance  its number
 * @return 0 to take it; any other code refuses it, and the caller gets that code
 *
 * Of several changes that come together, all are checked before the first one is made.
 */
typedef uint32_t (*bv_service_check)(const void *was, const void *is, uint32_t instance);

/** Called after a change, with the arguments of bv_service_check. */
typedef void (*bv_service_changed)(const void *was, const void *is, uint32_t instance);

/** A family that the service owns. Members that are not named are zero. */
typedef struct bv_service_family {
    const char *name;           /**< its template's file name */
    uint32_t size;              /**< bytes of the packed structure, NAME_SIZE: the template's */
    uint32_t store;             /**< where it is saved: a bv_service_store */
    uint32_t flags;             /**< BV_SERVICE_HIDDEN, or 0 */
    bv_service_check check;     /**< may refuse changes; null: every change is taken */
    bv_service_changed changed; /**< is told of changes; may be null */
} bv_service_family;

/** A function offered to other services: see bv_ubus_server_reg(). */
typedef struct bv_service_function {
    const char *name;        /**< for callers; at most 255 characters, no quotes and backslashes */
    bv_ubus_handler handler; /**< runs on the owner's thread */
} bv_service_function;

/** The name of a debug module or level, for people: bv-ctl debug. */
typedef struct bv_service_name {
    const char *name; /**< at most 255 characters, no quotes and backslashes */
    uint32_t number;  /**< a module, 0 to 9, or a level, 0 to 7 */
} bv_service_name;

/** A service. Members that are not named are zero; a table may be null when its count is 0. */
typedef struct bv_service {
    uint32_t size;      /**< sizeof(struct bv_service): tells the kit which members there are */
    uint32_t flags;     /**< BV_SERVICE_COMMIT_AT_END, or 0 */
    const char *name;   /**< 1 to 100 characters of a-z, A-Z, 0-9, '-', '_' and '.' */
    const char *object; /**< the object of the functions; null: the service's name. No
                             quotes and backslashes */
    const struct bv_service_family *families;    /**< those that it owns, no name twice */
    uint32_t n_families;                         /**< how many */
    uint32_t n_functions;                        /**< how many functions */
    const struct bv_service_function *functions; /**< those that it offers, no name twice */
    const char *const *writers;            /**< users that may change families, besides root */
    const struct bv_service_name *modules; /**< debug modules that can be named */
    const struct bv_service_name *levels;  /**< debug levels that can be named */
    uint32_t n_writers;                    /**< how many writers */
    uint32_t n_modules;                    /**< how many modules */
    uint32_t n_levels;                     /**< how many levels */
    int (*start)(void); /**< called once the families are loaded, before anything is served. A
                             result other than 0 is the exit status. May be null */
    void (*end)(void);  /**< called at the end of a service that has served, after the last
                             commit. May be null */
} bv_service;

/** The service was ended by SIGTERM, SIGINT or bv_service_end(). For the other exit statuses of
 * bv_service_run() a line on stderr, in syslog and on the debug channel says what is wrong, where,
 * and what to do. */
#define BV_SERVICE_ENDED 0
#define BV_SERVICE_BAD_USE 2   /**< the structure has a fault, for instance a name twice */
#define BV_SERVICE_NO_MEMORY 3 /**< the library could not start */
#define BV_SERVICE_TEMPLATE 4  /**< a template is missing or has faults */
#define BV_SERVICE_SIZE 5      /**< a template's size is not the program's */
/** A data file cannot be read, or it is damaged and so is its .good: nothing was changed. */
#define BV_SERVICE_DATA 6
#define BV_SERVICE_NAME_TAKEN 7 /**< another process serves an object of that name */

/**
 * Runs a service until SIGTERM, SIGINT or bv_service_end().
 *
 * Loads the families, calls `start`, and serves on this thread. Without a bus, at the start or
 * later, it says so once and tries again each second; settings that are not saved yet stay.
 * It calls bv_libraries_init() itself.
 *
 * A data file that is damaged is renamed to .bad, and a copy of the .good of the last commit takes
 * its place. Parameters that the file lacks, or whose values do not fit the template, since it is
 * of an older or newer program, have their defaults, and each a line in syslog.
 *
 * @return an exit status: one of BV_SERVICE_..., or the result of `start`
 */
BV_API int bv_service_run(const struct bv_service *service);

/**
 * Ends bv_service_run() after the handler or callback that runs now. Does nothing when no service
 * runs. Safe in a signal handler.
 */
BV_API void bv_service_end(void);

/**
 * Saves the user and private families that changed.
 *
 * The file is written beside the old one, compared with the families in memory, and put in its
 * place at once: after a power cut there is the old or the new one. Members of other services stay
 * as they are, byte for byte. The old file stays as .good. A file that would not change is not
 * written. A family without instances is saved with instance 1 and its defaults. Services that
 * share a file wait for each other, at most 2 seconds for each file.
 *
 * @retval BV_OK             saved, or nothing to save
 * @retval BV_ERR_WRITE_OPEN a file cannot be written: the folder, permissions, another service that
 *                           holds the lock, or the disk is full; syslog has the path and the cause
 * @retval BV_ERR_INVALID    a value would not survive the file; the file is as it was
 * @retval BV_ERR_FAILED     not running
 *
 * A handler that calls bv_db_commit() itself goes round all this: it rewrites the file in place,
 * and the families of other services in it are lost.
 */
BV_API int32_t bv_service_commit(void);

/** As bv_service_commit(), for the factory families: same results. */
BV_API int32_t bv_service_commit_factory(void);

/**
 * Changes an instance: `check`, the change, `changed`, and the event for those who watch.
 *
 * @param family    its name
 * @param image     as many bytes as the family's size; null deletes the instance
 * @param instance  its number; for a number that does not exist it is added
 *
 * @retval BV_OK               changed, also when nothing differs
 * @retval BV_ERR_NO_FAMILY    not a family of this service
 * @retval BV_ERR_NO_INSTANCE  to be deleted, but missing
 * @retval BV_ERR_INVALID      a value that a file would not keep
 * @retval BV_ERR_MEMORY       no memory
 * @return otherwise what `check` refused with
 *
 * bv_db_write() changes a family too, but neither calls `check` and `changed` nor sends an event.
 */
BV_API int32_t bv_service_change(const char *family, const void *image, uint32_t instance);

/**
 * Takes a family back to what its data file has. `check` is not asked; `changed` is called for
 * every instance that differs.
 *
 * @param family  its name
 *
 * @retval BV_OK             reverted; a family that the file does not name has its defaults, and so
 *                           has every family before the first commit
 * @retval BV_ERR_NO_FAMILY  not a family of this service
 * @retval BV_ERR_NO_FILE    neither the file nor its .good can be read: nothing changed
 * @retval BV_ERR_MEMORY     no memory: nothing changed
 */
BV_API int32_t bv_service_revert(const char *family);

/**
 * Takes a family back to the defaults of its template: one instance, number 1. No file changes.
 *
 * @param family  its name
 *
 * @retval BV_OK             reset
 * @retval BV_ERR_NO_FAMILY  not a family of this service
 * @retval BV_ERR_MEMORY     no memory: nothing changed
 */
BV_API int32_t bv_service_reset(const char *family);

/** @} */

/**
 * @name Caller
 * @{
 */

/* A client, made by bv_service_open(). */
struct bv_service_client;

/**
 * Makes a client. It connects when it is used first.
 *
 * @param service  the service's name; null finds the owner of each family by asking every service
 * @param wait_ms  how long a call waits for the bus and the owner if they are not there; 0 does not
 *                 wait. A bus or an owner that hangs counts as missing after 3 seconds, an owner
 *                 that is to save after 8. A bus that hangs later than at its greeting may be
 *                 waited for without limit
 * @return the client, for bv_service_close(); null when memory is short or the name is not one
 */
BV_API struct bv_service_client *bv_service_open(const char *service, uint32_t wait_ms);

/** Closes the connection and frees the client; null is ignored. */
BV_API void bv_service_close(struct bv_service_client *client);

/**
 * Reads an instance.
 *
 * @param client    from bv_service_open()
 * @param family    its name
 * @param image     gets the family's packed structure
 * @param size      NAME_SIZE; must be the owner's
 * @param instance  its number
 *
 * @retval BV_OK               read
 * @retval BV_ERR_NO_FAMILY    no service owns the family
 * @retval BV_ERR_NO_INSTANCE  no such instance
 * @retval BV_ERR_INVALID      the owner's family has another size: one of the programs is older
 * @return otherwise a status of the bus: 6 hidden or not permitted, 7 no answer in time, 10 no bus
 */
BV_API int32_t bv_service_get(struct bv_service_client *client, const char *family, void *image,
                              uint32_t size, uint32_t instance);

/**
 * Changes an instance, or adds it if the number does not exist. Nothing is saved.
 *
 * @param client    from bv_service_open()
 * @param family    its name
 * @param image     the family's packed structure
 * @param size      NAME_SIZE; must be the owner's
 * @param instance  its number
 *
 * @return as bv_service_get(), 6 also when the user may not write; BV_ERR_INVALID also for a value
 *         that a file would not keep; otherwise the code that the owner refused with.
 *         bv_service_words() names the parameter
 */
BV_API int32_t bv_service_set(struct bv_service_client *client, const char *family,
                              const void *image, uint32_t size, uint32_t instance);

/**
 * Sends any request of NAME.config: docs/formats.md lists them. Used by bv-ctl. A client of
 * any service asks the owner of the family that the data names first, and gets 4 if the data names
 * none.
 *
 * @param client  from bv_service_open()
 * @param op      the operation, for instance "get"
 * @param data    its argument, JSON; null for none
 * @param answer  gets the whole answer as JSON, for free(); null if it is empty. May be null
 * @return as bv_service_get()
 */
BV_API int32_t bv_service_request(struct bv_service_client *client, const char *op,
                                  const char *data, char **answer);

/**
 * Lists the running services that use the kit.
 *
 * @param client  from bv_service_open()
 * @param found   called with each service's name, in the alphabetical order of NAME.config
 * @param priv    for found
 * @return 0, or a status of the bus
 */
BV_API int32_t bv_service_list(struct bv_service_client *client,
                               void (*found)(const char *service, void *priv), void *priv);

/** Called by bv_service_watch() when a family may have changed; read it again. */
typedef void (*bv_service_changed_cb)(const char *service, const char *family, void *priv);

/**
 * Watches families. It listens for the owner's events, and asks the owner every 5 seconds too,
 * since an event may be lost. A restart of the owner counts as a change.
 *
 * @param client   from bv_service_open()
 * @param family   what to watch; null for all of the client's service, or of all services
 * @param changed  called once at the beginning for each family, then after each change
 * @param priv     for changed
 * @param ms       how long to watch, in milliseconds; 0 without limit
 * @return BV_OK after that time, or after bv_service_unwatch() in the callback; otherwise as
 *         bv_service_get(), when the owner is away longer than the client waits
 */
BV_API int32_t bv_service_watch(struct bv_service_client *client, const char *family,
                                bv_service_changed_cb changed, void *priv, uint32_t ms);

/** Ends bv_service_watch(); for the callback. */
BV_API void bv_service_unwatch(struct bv_service_client *client);

/** What the owner said about the last call that it refused, for instance "lan.json.mtu: 70000 is
 * not in 0 to 65535"; empty if nothing. Valid until the client's next call. */
BV_API const char *bv_service_words(const struct bv_service_client *client);

/** Any result of the caller's half as words: see bv_status_text() and bv_bus_status_text(). Never
 * null. */
static inline const char *bv_service_text(int32_t result)
{
    return result >= 0 && result < 0x1000 ? bv_bus_status_text(result) : bv_status_text(result);
}

/** @} */

#ifdef __cplusplus
}
#endif

#endif
