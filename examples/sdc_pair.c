/* sdc_pair: a producer and a consumer of the serial data record ring (SDC),
 * as two processes. The consumer registers by name and then polls for what
 * is new to it; the producer appends records.
 *
 *   cc sdc_pair.c $(pkg-config --cflags --libs libshm) -o sdc_pair
 *
 * Nothing in the ring wakes a consumer: it polls. Each poll hands over at most
 * SDC_POLL_BUFFER_SIZE bytes, so its buffer must be that large. */
#define _DEFAULT_SOURCE /* usleep */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libshm.h>

enum { RECORDS = 5 };

static int produce(void) {
    /* A consumer registered on an empty ring never receives the ring's
     * first byte, and an append of several bytes into an empty ring leaves
     * the ring's newest-byte index one beyond its last byte. A producer that
     * starts an empty ring with a single byte avoids both: every later byte
     * reaches the consumers. */
    uint32_t size = 0;
    if (Vond_shm_get_size_sdc(&size) != 0) return 1;
    if (size == 0) {
        const uint32_t one = 1;
        if (Vond_shm_write_sdc(&one, "\n") != 0) return 1;
    }
    for (int i = 1; i <= RECORDS; ++i) {
        char text[32];
        const uint32_t length = (uint32_t)snprintf(text, sizeof text, "record %d\n", i);
        if (Vond_shm_write_sdc(&length, text) != 0) {
            fprintf(stderr, "producer: Vond_shm_write_sdc failed\n");
            return 1;
        }
        usleep(20000);
    }
    return 0;
}

int main(void) {
    /* Start-up, once per boot: restores the ring from the recovery file in
     * flash when there is a valid one, else signs the section's header. */
    if (Vond_shm_init_sdc() != 0) {
        fprintf(stderr, "sdc_pair: Vond_shm_init_sdc failed\n");
        return 1;
    }
    /* Register before the producer starts: a consumer gets what is written
     * after its registration, nothing older. */
    int32_t id = -1;
    if (Vond_shm_periodic_register_sdc("example", &id) != 0 || id < 0) {
        fprintf(stderr, "sdc_pair: no free application slot (8 at most)\n");
        return 1;
    }

    fflush(stdout);
    const pid_t producer = fork();
    if (producer == 0) _exit(produce());

    char *buffer = malloc(SDC_POLL_BUFFER_SIZE);
    if (buffer == NULL) return 1;
    int lines = 0;
    for (int polls = 0; polls < 500 && lines < RECORDS; ++polls) {
        uint32_t length = 0;
        if (Vond_shm_periodic_get_sdc(&length, buffer, (uint32_t)id) != 0) {
            fprintf(stderr, "sdc_pair: poll failed\n");
            break;
        }
        /* Without a wrap (a few small records never fill 512 KiB) the count
         * is exactly the bytes delivered; after a wrap it is not (see
         * libshm_sdc(3)). */
        fwrite(buffer, 1, length, stdout);
        for (uint32_t i = 0; i < length; ++i) lines += buffer[i] == '\n';
        usleep(10000);
    }
    free(buffer);

    int status = 0;
    waitpid(producer, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || lines != RECORDS) {
        fprintf(stderr, "sdc_pair: received %d of %d records\n", lines, RECORDS);
        return 1;
    }
    return 0;
}
