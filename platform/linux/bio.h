/* SPDX-License-Identifier: GPL-2.0-only */
/* Requests: what block.c's neighbours share. */
#ifndef SNBF_LINUX_BIO_H
#define SNBF_LINUX_BIO_H

struct bio;

/* The memory that requests of the driver's own come from; for as long as the module is loaded. */
int snbf_bio_sets_init(void);
void snbf_bio_sets_exit(void);

/* Submit function of every node's disk. */
void snbf_node_submit_bio(struct bio* bio);

#endif
