/* SPDX-License-Identifier: ISC */
/**
 * What goes over the message bus socket: the header of a message, its types, its attributes and
 * the status numbers.
 *
 * A message is a header, then one blob whose children are the attributes. All numbers are
 * big-endian. The daemon never changes a sequence number, so a caller finds its answers by the
 * pair of sequence number and peer.
 */
#ifndef UBUSMSG_H
#define UBUSMSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/blob.h>

/** Granularity of the client's receive buffer, in bytes. */
#define UBUS_MSG_CHUNK_SIZE 65536

/** Largest body of a message in bytes, its own first word included. */
#define UBUS_MAX_MSGLEN 1048576

/** Client id of the channel between a client and the daemon itself. */
#define UBUS_CLIENT_ID_CHANNEL 1

/** Objects of the daemon; every id below UBUS_SYSTEM_OBJECT_MAX is reserved for them. */
#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_ACL 2
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024

/** First eight bytes of every message; seq and peer are big-endian on the wire. */
struct ubus_msghdr {
    uint8_t version; /**< 0 */
    uint8_t type;    /**< one of UBUS_MSG_ */
    uint16_t seq;    /**< chosen by whoever asks, copied into every answer */
    uint32_t peer;   /**< client or object, by direction */
} __attribute__((packed, aligned(4)));

/** A header with the body that follows it. */
struct ubus_msghdr_buf {
    struct ubus_msghdr hdr;
    struct blob_attr *data;
};

/** Message types. */
enum ubus_msg_type {
    UBUS_MSG_HELLO = 0,         /**< daemon's greeting; peer is the client's id */
    UBUS_MSG_STATUS = 1,        /**< end of an answer */
    UBUS_MSG_DATA = 2,          /**< part of an answer */
    UBUS_MSG_PING = 3,          /**< comes back as DATA */
    UBUS_MSG_LOOKUP = 4,        /**< objects by path */
    UBUS_MSG_INVOKE = 5,        /**< method call */
    UBUS_MSG_ADD_OBJECT = 6,    /**< publish an object */
    UBUS_MSG_REMOVE_OBJECT = 7, /**< withdraw it */
    UBUS_MSG_SUBSCRIBE = 8,     /**< watch an object */
    UBUS_MSG_UNSUBSCRIBE = 9,   /**< stop watching, or the watched one is gone */
    UBUS_MSG_NOTIFY = 10,       /**< tell the watchers, or whether there are any */
    UBUS_MSG_MONITOR = 11,      /**< copy of somebody's message */
    __UBUS_MSG_LAST = 12
};

/** Attributes of every message but MONITOR. */
enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC = 0,
    UBUS_ATTR_STATUS = 1,       /**< 32 bit */
    UBUS_ATTR_OBJPATH = 2,      /**< string */
    UBUS_ATTR_OBJID = 3,        /**< 32 bit */
    UBUS_ATTR_METHOD = 4,       /**< string */
    UBUS_ATTR_OBJTYPE = 5,      /**< 32 bit */
    UBUS_ATTR_SIGNATURE = 6,    /**< one blobmsg table per method */
    UBUS_ATTR_DATA = 7,         /**< blobmsg fields */
    UBUS_ATTR_TARGET = 8,       /**< 32 bit */
    UBUS_ATTR_ACTIVE = 9,       /**< 8 bit */
    UBUS_ATTR_NO_REPLY = 10,    /**< 8 bit */
    UBUS_ATTR_SUBSCRIBERS = 11, /**< 32-bit entries of id 0 */
    UBUS_ATTR_USER = 12,        /**< string */
    UBUS_ATTR_GROUP = 13,       /**< string */
    UBUS_ATTR_MAX = 14
};

/** Attributes of a MONITOR message. */
enum ubus_monitor_attr {
    UBUS_MONITOR_CLIENT = 0, /**< id of the watched client */
    UBUS_MONITOR_PEER = 1,   /**< peer of its message */
    UBUS_MONITOR_SEND = 2,   /**< whether it was sent to the client */
    UBUS_MONITOR_SEQ = 3,    /**< sequence number of the message */
    UBUS_MONITOR_TYPE = 4,   /**< its type */
    UBUS_MONITOR_DATA = 5,   /**< its attributes */
    UBUS_MONITOR_MAX = 6
};

/** What a request ended with. Methods may return other numbers too; they pass unchanged. */
enum ubus_msg_status {
    UBUS_STATUS_OK = 0,
    UBUS_STATUS_INVALID_COMMAND = 1,
    UBUS_STATUS_INVALID_ARGUMENT = 2,
    UBUS_STATUS_METHOD_NOT_FOUND = 3,
    UBUS_STATUS_NOT_FOUND = 4,
    UBUS_STATUS_NO_DATA = 5,
    UBUS_STATUS_PERMISSION_DENIED = 6,
    UBUS_STATUS_TIMEOUT = 7,
    UBUS_STATUS_NOT_SUPPORTED = 8,
    UBUS_STATUS_UNKNOWN_ERROR = 9,
    UBUS_STATUS_CONNECTION_FAILED = 10,
    UBUS_STATUS_NO_MEMORY = 11,
    UBUS_STATUS_PARSE_ERROR = 12,
    UBUS_STATUS_SYSTEM_ERROR = 13,
    __UBUS_STATUS_LAST = 14
};

#ifdef __cplusplus
}
#endif

#endif
