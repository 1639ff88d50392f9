struct point { int x, y; };
struct shape { struct point corner[4]; const char *name; union { int i; float f; } u; };
enum colour { RED, GREEN = 5, BLUE };
static int counter = 3;
int area(const struct shape *s) {
    int w = s->corner[1].x - s->corner[0].x;
    { int h = s->corner[2].y - s->corner[0].y; counter += h; return w * h; }
}
