/* SPDX-License-Identifier: ISC */
/* The generated headers as C, with the sizes that C gives their structures. */
#include "board.h"
#include "dhcp-host.h"
#include "lan.h"
#include "odd-names.h"
#include "wan.h"
#include "wireless.h"

/* A header may be included twice. */
#include "lan.h"

const size_t header_sizes_in_c[] = {sizeof(struct board),    sizeof(struct dhcp_host),
                                    sizeof(struct lan),      sizeof(struct wan),
                                    sizeof(struct wireless), sizeof(struct odd_names)};
