"""What is measured: beside whom, and with which goal."""

AT_MOST, AT_LEAST = "at most", "at least"

# Families, in the order of the page. Each has a plot.
FAMILIES = {
    "hash": "Hash table",
    "database": "Database",
    "rpc": "Remote calls",
    "messages": "Debug messages and events",
    "queue": "Queue",
    "text": "Copies and text",
    "crypto": "Cryptography",
    "checksums": "Checksums",
    "flash": "Flash",
}

# Family, what, program, work, peer, which way, goal. "At most" limits our time divided by the
# peer's, "at least" the peer's divided by ours. A goal of None only shows the figures.
TIMES = [
    ("hash", "Look-up, 1024-byte key", "hash", "hash-find", "hash-and-memcmp", AT_MOST, 1.10),
    ("hash", "Look-up, 256-byte key", "hash", "registry-find", "hash-and-memcmp", AT_MOST, None),
    ("database", "Read of one instance", "database", "db-read", "hash-find", AT_MOST, 1.15),
    ("database", "Write of one instance", "database", "db-write", "hash-find", AT_MOST, None),
    ("database", "Load, 100 families", "database", "db-load", "json-c-parse", AT_MOST, 1.25),
    ("database", "Commit of the same", "database", "db-commit", "json-c-to-file", AT_MOST, 1.0),
    ("database", "Commit, peer in memory", "database", "db-commit", "json-c-to-memory", AT_MOST, None),
    ("rpc", "Remote call, 56 bytes", "rpc", "rpc/56B", "bare-object", AT_MOST, 1.05),
    ("rpc", "Remote call, 4 KiB", "rpc", "rpc/4096B", "bare-object", AT_MOST, 1.05),
    ("rpc", "Bus round trip, 56 bytes", "rpc", "bus/56B", "4-hop-relay", AT_MOST, None),
    ("rpc", "Bus round trip, 4 KiB", "rpc", "bus/4096B", "4-hop-relay", AT_MOST, None),
    ("messages", "Debug message, on", "debug", "debug-on", "snprintf-and-sendto", AT_MOST, 1.08),
    ("messages", "Event, posted to callback", "notifier", "event", "semaphore", AT_MOST, 1.06),
    ("queue", "1 thread", "queue", "queue-1", "GAsyncQueue", AT_LEAST, 1.4),
    ("queue", "1 thread", "queue", "queue-1", "mq", AT_LEAST, 30),
    ("queue", "1 thread", "queue", "queue-1", "pipe", AT_LEAST, None),
    ("queue", "1 thread of several", "queue", "queue-1of2", "GAsyncQueue", AT_LEAST, None),
    ("queue", "2 producers 2 consumers", "queue", "queue-2x2", "GAsyncQueue", AT_LEAST, 1.6),
    ("queue", "2 and 2, peer polled too", "queue", "queue-2x2", "GAsyncQueue-polled", AT_LEAST, 1.6),
    ("queue", "2 producers 2 consumers", "queue", "queue-2x2", "mq", AT_LEAST, None),
    ("queue", "2 producers 2 consumers", "queue", "queue-2x2", "pipe", AT_LEAST, None),
    ("text", "Bounded copy, 8 bytes", "text", "copy/8B", "memcpy_s", AT_MOST, 1.15),
    ("text", "Bounded copy, 64 bytes", "text", "copy/64B", "memcpy_s", AT_MOST, 1.15),
    ("text", "Bounded copy, 1024 bytes", "text", "copy/1024B", "memcpy_s", AT_MOST, 1.03),
    ("text", "Hexadecimal text, 32 bytes", "text", "hex/32B", "print-a-byte", AT_LEAST, 15),
    ("text", "Hexadecimal text, 255 bytes", "text", "hex/255B", "print-a-byte", AT_LEAST, 15),
    ("crypto", "SHA-256, 1 MiB", "crypto_hash", "SHA-256/1MiB", "OpenSSL", AT_LEAST, 1.0),
    ("crypto", "SHA-256, 1 MiB", "crypto_hash", "SHA-256/1MiB", "libgcrypt", AT_LEAST, 1.0),
    ("crypto", "SHA-256, 1 MiB", "crypto_hash", "SHA-256/1MiB", "nettle", AT_LEAST, 1.0),
    ("crypto", "SHA-256, 1 MiB", "crypto_hash", "SHA-256/1MiB", "mbedTLS", AT_LEAST, 1.25),
    ("crypto", "HMAC-SHA-256, 64 bytes", "crypto_hash", "HMAC-SHA-256/64B", "nettle", AT_LEAST, 1.04),
    ("crypto", "HMAC-SHA-256, 1 KiB", "crypto_hash", "HMAC-SHA-256/1KiB", "nettle", AT_LEAST, 1.04),
    ("crypto", "HMAC-SHA-256, 64 bytes", "crypto_hash", "HMAC-SHA-256/64B", "mbedTLS", AT_LEAST, None),
    ("crypto", "HMAC-SHA-256, 64 bytes", "crypto_hash", "HMAC-SHA-256/64B", "OpenSSL", AT_LEAST, None),
    ("crypto", "PBKDF2, 10 000 iterations", "crypto_hash", "PBKDF2-10000/16B", "mbedTLS", AT_LEAST, 1.25),
    ("crypto", "AES file, encrypted, 4 MiB", "crypto_file", "AES file encrypted/4MiB", "chunk-by-chunk", AT_LEAST, 12),
    ("crypto", "AES file, decrypted, 4 MiB", "crypto_file", "AES file decrypted/4MiB", "chunk-by-chunk", AT_LEAST, 12),
    ("crypto", "SM3 of a file, 4 MiB", "crypto_file", "SM3/4MiB", "OpenSSL-memory", AT_MOST, 1.1),
    ("checksums", "CRC-32, 64 bytes", "crypto_hash", "CRC-32/64B", "zlib", AT_LEAST, 6),
    ("checksums", "CRC-32, 1 KiB", "crypto_hash", "CRC-32/1KiB", "zlib", AT_LEAST, 1.5),
    ("checksums", "CRC-32, 64 KiB", "crypto_hash", "CRC-32/64KiB", "zlib", AT_LEAST, 1.05),
    ("checksums", "CRC-32, 1 MiB", "crypto_hash", "CRC-32/1MiB", "zlib", AT_LEAST, 1.05),
    ("checksums", "CRC-16, 64 bytes", "crypto_hash", "CRC-16/64B", "one-table", AT_LEAST, 7),
    ("checksums", "CRC-16, 1 KiB", "crypto_hash", "CRC-16/1KiB", "one-table", AT_LEAST, 9),
    ("checksums", "CRC-16, 1 MiB", "crypto_hash", "CRC-16/1MiB", "one-table", AT_LEAST, 9),
]

# Counted on the workstation. Family, what, program, work, units in one piece of it, goal
# (instructions at most for one unit), pieces in the shorter run, and pieces more in the longer one.
COUNTS = [
    ("hash", "Look-up, 1024-byte key", "hash", "hash-find/bv", 1, 5300, 2, 40),
    ("messages", "Debug message, off", "debug", "debug-off/bv", 1, 40, 100, 20000),
    ("queue", "Send and receive 64 bytes", "queue", "queue-1/bv", 1, 370, 100, 5000),
    ("crypto", "SHA-256, 1 MiB, a byte", "crypto_hash", "SHA-256/1MiB/bv", 1 << 20, 50, 1, 2),
    ("crypto", "SHA-256, 64 bytes", "crypto_hash", "SHA-256/64B/bv", 1, 6600, 10, 500),
    ("crypto", "PBKDF2, an iteration", "crypto_hash", "PBKDF2-10000/16B/bv", 10000, 13500, 1, 1),
    ("checksums", "CRC-32, 64 KiB, a byte", "crypto_hash", "CRC-32/64KiB/bv", 65536, 3.8, 2, 20),
    ("checksums", "CRC-16, 64 KiB, a byte", "crypto_hash", "CRC-16/64KiB/bv", 65536, 3.8, 2, 20),
]

# Counted on the gateway's processor. Family, what, program, work, ours, peer, units in one piece,
# pieces in the shorter run, and pieces more in the longer one.
TARGET = [
    ("hash", "Look-up, 1024-byte key", "hash", "hash-find", "bv", "hash-and-memcmp", 1, 10, 40),
    ("hash", "Look-up, 256-byte key", "hash", "registry-find", "bv", "hash-and-memcmp", 1, 10, 40),
    ("database", "Read of one instance", "database", "db-read", "bv", "hash-find", 1, 10, 40),
    ("database", "Write of one instance", "database", "db-write", "bv", "hash-find", 1, 10, 40),
    ("database", "Load, 100 families", "database", "db-load", "bv", "json-c-parse", 1, 2, 4),
    ("database", "Commit of the same", "database", "db-commit", "bv", "json-c-to-file", 1, 2, 8),
    ("rpc", "Remote call, 56 bytes, caller", "rpc", "rpc/56B", "bv", "bare-object", 1, 100, 1000),
    ("rpc", "Remote call, 56 bytes, owner", "rpc", "rpc/56B", "bv owner", "bare-object owner", 1, 100, 1000),
    ("rpc", "Remote call, 4 KiB, caller", "rpc", "rpc/4096B", "bv", "bare-object", 1, 100, 1000),
    ("rpc", "Remote call, 4 KiB, owner", "rpc", "rpc/4096B", "bv owner", "bare-object owner", 1, 100, 1000),
    ("messages", "Debug message, off", "debug", "debug-off", "bv", None, 1, 100, 20000),
    ("messages", "Debug message, on", "debug", "debug-on", "bv", "snprintf-and-sendto", 1, 100, 1000),
    ("messages", "Event, posted to callback", "notifier", "event", "bv", "semaphore", 1, 100, 2000),
    ("queue", "Send and receive 64 bytes", "queue", "queue-1", "bv", None, 1, 100, 1000),
    ("text", "Bounded copy, 8 bytes", "text", "copy/8B", "bv", "memcpy_s", 1, 10, 100),
    ("text", "Bounded copy, 64 bytes", "text", "copy/64B", "bv", "memcpy_s", 1, 10, 100),
    ("text", "Bounded copy, 1024 bytes", "text", "copy/1024B", "bv", "memcpy_s", 1, 10, 100),
    ("text", "Hexadecimal text, 32 bytes", "text", "hex/32B", "bv", "print-a-byte", 1, 10, 100),
    ("text", "Hexadecimal text, 255 bytes", "text", "hex/255B", "bv", "print-a-byte", 1, 10, 100),
    ("crypto", "SHA-256, 1 MiB, a byte", "crypto_hash", "SHA-256/1MiB", "bv", "OpenSSL", 1 << 20, 1, 2),
    ("crypto", "SHA-256, 64 bytes", "crypto_hash", "SHA-256/64B", "bv", "OpenSSL", 1, 10, 100),
    ("crypto", "HMAC-SHA-256, 64 bytes", "crypto_hash", "HMAC-SHA-256/64B", "bv", "OpenSSL", 1, 10, 100),
    ("crypto", "PBKDF2, an iteration", "crypto_hash", "PBKDF2-10000/16B", "bv", None, 10000, 1, 1),
    ("crypto", "AES file, encrypted, a byte", "crypto_file", "AES file encrypted/4MiB", "bv", "chunk-by-chunk", 4 << 20, 1, 1),
    ("crypto", "AES file, decrypted, a byte", "crypto_file", "AES file decrypted/4MiB", "bv", "chunk-by-chunk", 4 << 20, 1, 1),
    ("crypto", "SM3 of a file, a byte", "crypto_file", "SM3/4MiB", "bv-file", "OpenSSL-memory", 4 << 20, 1, 1),
    ("checksums", "CRC-32, 64 bytes", "crypto_hash", "CRC-32/64B", "bv", "zlib", 1, 10, 100),
    ("checksums", "CRC-32, 64 KiB, a byte", "crypto_hash", "CRC-32/64KiB", "bv", "zlib", 65536, 2, 8),
    ("checksums", "CRC-16, 64 bytes", "crypto_hash", "CRC-16/64B", "bv", "one-table", 1, 10, 100),
    ("checksums", "CRC-16, 64 KiB, a byte", "crypto_hash", "CRC-16/64KiB", "bv", "one-table", 65536, 2, 8),
]


# How figures grow. One table and one plot each, of panels side by side: title, unit of the figures,
# how it is made of nanoseconds and the number, whether its axis is logarithmic, and its series as
# (name, benchmark with N for the number).
GROWTH = {
    "hash": {
        "title": "Hash table, by number of entries", "axis": "entries", "program": "hash",
        "numbers": (10, 20, 50, 100, 200, 500, 1000, 2048),
        "note": "Time of one operation in the tables of the database and of an owner's functions. The first stays "
                "flat; the second has eight chains, as many as the mask of its 8196 buckets leaves in use, so its "
                "look-ups grow with the functions registered. A gateway's owner has a few dozen, and the function "
                "called last is found without the table. \"Inserted and freed\" includes making the table.",
        "panels": [
            (title, "ns", lambda time, number: time, False,
             [("found", f"{table}-N/find"), ("not there", f"{table}-N/find-absent"),
              ("inserted and freed", f"{table}-N/fill")])
            for title, table in (("Database: 1024-byte key, 2048 buckets", "database"),
                                 ("Functions: 256-byte key, eight chains", "registry"))],
    },
    "database": {
        "title": "Database, by number of families", "axis": "families", "program": "database",
        "note": "Families of 10 parameters with 3 instances each, 192 bytes an instance. Loading and saving grow in "
                "proportion; reading and writing one instance does not depend on the size.",
        "numbers": (1, 5, 20, 50, 100, 200, 500), "argument": "--families=N",
        "panels": [
            ("All families at once", "ms", lambda time, number: time / 1e6, True,
             [("load", "db-load/bv"), ("json-c parses the same", "db-load/json-c-parse"),
              ("commit", "db-commit/bv"), ("json-c prints the same", "db-commit/json-c-to-file")]),
            ("One instance", "ns", lambda time, number: time, False,
             [("read", "db-read/bv"), ("write", "db-write/bv"), ("hash look-up alone", "db-read/hash-find")])],
    },
    "rpc": {
        "title": "Remote calls of 56 bytes, by number of callers", "axis": "callers", "program": "rpc",
        "note": "One owner, one bus daemon, and several caller processes that call without a pause.",
        "numbers": tuple(range(1, 9)),
        "panels": [
            ("Calls that one owner answers", "calls a second", lambda time, number: 1e9 / time, False,
             [("library", "callers-N/bv"), ("bare object", "callers-N/bare-object")]),
            ("One call, as its caller sees it", "\u00b5s", lambda time, number: time * number / 1e3, False,
             [("library", "callers-N/bv"), ("bare object", "callers-N/bare-object")])],
    },
}

# The page's first table: what, family, its row of TARGET, and its row of TIMES or COUNTS.
SHORT = [
    ("Reading a setting (one instance of a family)", "database", "Read of one instance", "Read of one instance"),
    ("Writing a setting, in memory", "database", "Write of one instance", "Write of one instance"),
    ("Saving 100 families with 300 instances", "database", "Commit of the same", "Commit of the same"),
    ("Loading them at start-up", "database", "Load, 100 families", "Load, 100 families"),
    ("A remote call of 56 bytes (gateway: the caller's part)", "rpc", "Remote call, 56 bytes, caller", "Remote call, 56 bytes"),
    ("The same (gateway: the owner's part)", "rpc", "Remote call, 56 bytes, owner", "Remote call, 56 bytes"),
    ("A debug message that is switched off", "messages", "Debug message, off", "Debug message, off"),
    ("A debug message that is sent", "messages", "Debug message, on", "Debug message, on"),
    ("A 64-byte message through a queue", "queue", "Send and receive 64 bytes", "1 thread"),
    ("SHA-256 of 1 MiB (gateway: each byte)", "crypto", "SHA-256, 1 MiB, a byte", "SHA-256, 1 MiB"),
    ("CRC-32 of 64 KiB (gateway: each byte)", "checksums", "CRC-32, 64 KiB, a byte", "CRC-32, 64 KiB"),
]

# Who the peers are, where their names do not say it.
PEERS = {
    "hash-and-memcmp": "the hash of the key and one comparison of it, without a table",
    "hash-find": "the look-up of the family alone",
    "json-c-parse": "json-c reading the same templates and data files, and doing nothing with them",
    "json-c-to-file, json-c-to-memory": "json-c printing the tree that the written file holds",
    "bare-object": "an object on the same bus, without the library, that takes and answers the same fields",
    "4-hop-relay": "the same bytes passed by hand over unix sockets: caller, relay, owner, relay, caller",
    "snprintf-and-sendto": "the text printed and sent by hand",
    "semaphore": "a bare semaphore from one thread to another",
    "GAsyncQueue": "GLib's queue with copies of the messages; \"polled\" with consumers that poll, as ours do",
    "mq, pipe": "the kernel's message queue and a pipe",
    "memcpy_s": "the bounded-check library called directly",
    "print-a-byte": "one bounded print for each byte",
    "OpenSSL, libgcrypt, nettle, mbedTLS": "their portable code, since the gateway has no vector unit",
    "chunk-by-chunk": "a context and two system calls for each chunk of 32 bytes, with the same result",
    "OpenSSL-memory": "the digest of the same bytes in memory",
    "one-table": "a table of 256 entries, a byte at a time",
}

# Why a goal is missed, by what and peer.
REASONS = {
    ("Load, 100 families", "json-c-parse"):
        "A load takes 1.35 times the parser's instructions, also on the gateway. The rest is memory: the descriptors "
        "of these families are 3 MB that are cleared and filled, more than a processor's cache, and the default "
        "images, which every load but the first leaves allocated on purpose, scatter the heap.",
    ("Bounded copy, 8 bytes", "memcpy_s"):
        "The wrapper is two register moves and a jump around a call that takes a few nanoseconds: one more taken jump "
        "is already more than the goal allows.",
    ("Bounded copy, 64 bytes", "memcpy_s"): "As for 8 bytes.",
    ("Bounded copy, 1024 bytes", "memcpy_s"): "As for 8 bytes; the figure varies around the goal from run to run.",
    ("Send and receive 64 bytes", "counted"):
        "The C library takes about 270 of them: one allocation and its release 130, two turns of the lock 115, the "
        "copying itself 22. Two checked copies take 60, the queue itself 110, the loop around them 20.",
    ("1 thread", "mq"):
        "Two system calls take less than half a microsecond here; a thirtieth of that is less than one allocation "
        "and its release.",
    ("2 producers 2 consumers", "GAsyncQueue"):
        "Four threads share two processors: a consumer that finds nothing yields and asks again, taking the lock that "
        "the producers need. The peer's consumers sleep instead. On a busy machine, where sleeping and waking cost "
        "more, the same run gave 3 to 4.",
    ("2 and 2, peer polled too", "GAsyncQueue-polled"):
        "With the peer polling as our consumers do, both wait for the same lock and the same allocator most of the time.",
    ("Event, posted to callback", "semaphore"):
        "The handoff is a few microseconds of the scheduler; where other work competes for the processors the "
        "difference is within the spread.",
}
