/* The C header compiled as C11, and the seven entry points linked by their
 * plain C names and called once each, without a bus (the behaviour on the
 * virtual bus is tested by tst_capi). Exits 0 when every check passed. */
#include "canopenmaster_c.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;
#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

int main(void)
{
    CaFrame f;
    int32_t h;
    memset(&f, 0, sizeof f);
    qca();
    qca(); /* a second call keeps the application that exists */
    CHECK(ca_create(12, "Talvik Virtual", 500) == -1);
    h = ca_create(6, "Talvik Virtual", 500);
    CHECK(h == 0);
    CHECK(ca_recv(h, &f) == -1); /* not connected: nothing waiting */
    CHECK(ca_send(h + 1, &f) == 0);
    CHECK(ca_connect(h + 1) == 0);
    CHECK(ca_disconnnect(h) == 1);
    CHECK(ca_destroy(h) == 1);
    if (failures)
        fprintf(stderr, "%d check(s) failed\n", failures);
    return failures ? 1 : 0;
}
