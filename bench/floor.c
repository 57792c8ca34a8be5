/*
 * The file work of first touches, and nothing else: what any driver pays that keeps its copies in
 * a file.
 *
 *   floor FOLDER CHUNK GROUP COUNT UNITS
 *
 * COUNT of UNITS chunks, at random and each once (in order, if COUNT is UNITS), in groups: the
 * group's chunks into a sparse data file, sync, a byte a chunk into a bitmap file, sync. Prints
 * nanoseconds.
 */
#define _GNU_SOURCE
#include <err.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static int open_sparse(const char *folder, const char *name, off_t size)
{
	char path[4096];
	int fd;

	snprintf(path, sizeof(path), "%s/%s", folder, name);
	fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
	if (fd < 0 || pwrite(fd, "", 1, size - 1) != 1 || fsync(fd) != 0)
		err(1, "%s", path);
	return fd;
}

static long *shuffled(long units, long count)
{
	long *order = malloc(units * sizeof(*order));

	if (!order)
		err(1, "memory");
	for (long at = 0; at < units; at++)
		order[at] = at;
	srandom(20);
	for (long at = 0; count < units && at < count; at++) {
		long other = at + random() % (units - at);
		long kept = order[at];

		order[at] = order[other];
		order[other] = kept;
	}
	return order;
}

static void write_at(int fd, const void *data, size_t size, off_t at)
{
	if (pwrite(fd, data, size, at) != (ssize_t)size)
		err(1, "write");
}

int main(int argc, char **argv)
{
	struct timespec begun, ended;
	long chunk, group, count, units, *order;
	char *data;
	int copies, bitmap;

	if (argc != 6)
		errx(2, "floor FOLDER CHUNK GROUP COUNT UNITS");
	chunk = atol(argv[2]);
	group = atol(argv[3]);
	count = atol(argv[4]);
	units = atol(argv[5]);
	copies = open_sparse(argv[1], "floor.data", units * chunk);
	bitmap = open_sparse(argv[1], "floor.bmp", units / 8 + 1);
	order = shuffled(units, count);
	data = calloc(1, chunk);
	sync();
	clock_gettime(CLOCK_MONOTONIC, &begun);
	for (long at = 0; at < count; at += group) {
		long behind = at + group < count ? at + group : count;

		for (long each = at; each < behind; each++)
			write_at(copies, data, chunk, order[each] * chunk);
		if (fsync(copies) != 0)
			err(1, "sync");
		for (long each = at; each < behind; each++)
			write_at(bitmap, "", 1, order[each] / 8);
		if (fsync(bitmap) != 0)
			err(1, "sync");
	}
	clock_gettime(CLOCK_MONOTONIC, &ended);
	printf("%lld\n", (ended.tv_sec - begun.tv_sec) * 1000000000LL + ended.tv_nsec - begun.tv_nsec);
	return 0;
}
