/* Built with the flags of `pkg-config --cflags --libs canopenmaster`. */
#include <canopenmaster_c.h>
#include <stdio.h>

int main(void)
{
    CaFrame f = {0};
    int32_t h;
    qca();
    if (ca_create(12, "x", 500) != -1)
        return 1;
    h = ca_create(6, "Talvik Virtual", 500);
    if (h != 0 || ca_recv(h, &f) != -1 || ca_destroy(h) != 1)
        return 1;
    puts("consumer built with pkg-config runs");
    return 0;
}
