extern int printf(const char *, ...);
double table[16];
long long big = 0x1122334455667788LL;
static const char *names[] = { "alpha", "beta", "gamma" };
int main(int argc, char **argv) {
    for (int i = 0; i < argc && i < 3; ++i) printf("%s %s\n", names[i], argv[i]);
    return (int)table[argc & 15];
}
