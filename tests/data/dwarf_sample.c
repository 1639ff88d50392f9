/* Compiled by the DWARF tests for big- and little-endian 32-bit PowerPC at
 * every DWARF version: structs, unions, enums, arrays and nested scopes. */
struct point {
    int x, y;
};
union value {
    int i;
    float f;
    unsigned char bytes[4];
};
enum colour { RED, GREEN = 5, BLUE };
struct shape {
    struct point corner[4];
    const char *name;
    union value tag;
    enum colour colour;
    double weights[2][3];
};
static int counter = 3;
long long big = 0x1122334455667788LL;

int area(const struct shape *s, int scale) {
    int w = s->corner[1].x - s->corner[0].x;
    {
        int h = s->corner[2].y - s->corner[0].y;
        for (int i = 0; i < scale; ++i) {
            static int calls;
            counter += h + i + ++calls;
        }
        return w * h * (s->colour == BLUE ? 2 : 1) + (int)s->weights[1][2];
    }
}
