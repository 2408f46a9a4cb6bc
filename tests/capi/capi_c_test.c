/* The C interface used from plain C, as a host program in another language
 * would: two handles on a private virtual bus exchange frames both ways.
 * Exits 0 when every check passed, 1 otherwise. */
#define _DEFAULT_SOURCE
#include "canopenmaster_c.h"

#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int failures = 0;

#define CHECK(cond)                                                          \
    do {                                                                     \
        if (!(cond)) {                                                       \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                      \
        }                                                                    \
    } while (0)

static void sleep_ms(int ms)
{
    struct timespec ts = {ms / 1000, (long)(ms % 1000) * 1000000L};
    nanosleep(&ts, NULL);
}

/* A UDP port nobody uses right now: the bus of this program alone. */
static int use_private_port(void)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr;
    socklen_t len = sizeof addr;
    char text[16];
    if (fd < 0)
        return 0;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = 0;
    if (bind(fd, (struct sockaddr*)&addr, sizeof addr) != 0 || getsockname(fd, (struct sockaddr*)&addr, &len) != 0) {
        close(fd);
        return 0;
    }
    close(fd);
    snprintf(text, sizeof text, "%u", (unsigned)ntohs(addr.sin_port));
    return setenv("CANOPEN_VBUS_PORT", text, 1) == 0;
}

static CaFrame frame(uint32_t id, uint8_t length, uint8_t first)
{
    CaFrame f;
    int i;
    memset(&f, 0, sizeof f);
    f.id = id;
    f.length = length;
    for (i = 0; i < 8 && i < length; ++i)
        f.data[i] = (uint8_t)(first + i);
    return f;
}

/* Polls a handle until a frame comes or about two seconds have passed. */
static int receive(int32_t handle, CaFrame* out)
{
    int i, r;
    for (i = 0; i < 2000; ++i) {
        r = ca_recv(handle, out);
        if (r > 0)
            return r;
        sleep_ms(1);
    }
    return -1;
}

/* Takes every frame of `handle` up to one with identifier `id`. */
static int receive_until(int32_t handle, uint32_t id)
{
    CaFrame f;
    while (receive(handle, &f) > 0) {
        if (f.id == id)
            return 1;
    }
    return 0;
}

int main(void)
{
    int32_t a, b;
    int i, r, ready = 0;
    CaFrame f, marker;

    if (!use_private_port()) {
        fprintf(stderr, "no free UDP port\n");
        return 1;
    }
    qca();
    qca(); /* a second call keeps the application that exists */

    a = ca_create(6, "Talvik Virtual", 500);
    b = ca_create(6, NULL, 500);
    CHECK(a == 0);
    CHECK(b == 1);
    CHECK(ca_create(12, "Talvik Virtual", 500) == -1);
    CHECK(ca_connect(a) == 1);
    CHECK(ca_connect(b) == 1);
    CHECK(ca_recv(b, &f) == -1);

    /* The receive sockets are bound by the adapters' threads: ping until b hears. */
    for (i = 0; i < 400 && !ready; ++i) {
        f = frame(0x7EF, 0, 0);
        CHECK(ca_send(a, &f) == 1);
        sleep_ms(5);
        while (ca_recv(b, &f) > 0)
            ready = 1;
    }
    CHECK(ready);
    marker = frame(0x7F0, 0, 0);
    ca_send(a, &marker);
    CHECK(receive_until(b, 0x7F0));

    /* a -> b: three frames; the first ca_recv reports all three waiting
     * once the third has arrived. */
    for (i = 0; i < 3; ++i) {
        f = frame(0x181 + i, (uint8_t)(2 + i), (uint8_t)(0x10 * (i + 1)));
        CHECK(ca_send(a, &f) == 1);
    }
    memset(&f, 0, sizeof f);
    f.length = 0x5A;
    f.flags = 0xFF;
    r = receive(b, &f);
    CHECK(r >= 1 && r <= 3);
    CHECK(f.id == 0x181);
    CHECK(f.length == 0x5A); /* the caller's length byte is left alone */
    CHECK(f.flags == 0);
    CHECK(f.data[0] == 0x10 && f.data[1] == 0x11 && f.data[2] == 0);
    for (i = 1; i < 3; ++i) {
        r = receive(b, &f);
        CHECK(r >= 1);
        CHECK(f.id == (uint32_t)(0x181 + i));
        CHECK(f.data[0] == (uint8_t)(0x10 * (i + 1)));
    }
    CHECK(ca_recv(b, &f) == -1);

    /* b -> a, with a full eight bytes and a 29-bit value. */
    f = frame(0x1FFFFFFE, 8, 0xA0);
    CHECK(ca_send(b, &f) == 1);
    memset(&f, 0, sizeof f);
    CHECK(receive(a, &f) == 1);
    CHECK(f.id == 0x1FFFFFFE);
    for (i = 0; i < 8; ++i)
        CHECK(f.data[i] == (uint8_t)(0xA0 + i));
    /* a never hears its own frames. */
    CHECK(ca_recv(a, &f) == -1);

    /* Handles beyond the table. */
    CHECK(ca_connect(2) == 0);
    CHECK(ca_send(2, &f) == 0);
    CHECK(ca_recv(2, &f) == 0);
    CHECK(ca_disconnnect(2) == 0);
    CHECK(ca_destroy(2) == 0);

    CHECK(ca_disconnnect(a) == 1);
    CHECK(ca_destroy(a) == 1);
    CHECK(ca_destroy(b) == 1);
    CHECK(ca_recv(b, &f) == -1);

    if (failures)
        fprintf(stderr, "%d check(s) failed\n", failures);
    else
        printf("C interface from C: all checks passed\n");
    return failures ? 1 : 0;
}
