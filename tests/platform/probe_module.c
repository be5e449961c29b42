/* A module for the loader's tests. */
int platform_probe_answer(void);
__attribute__((visibility("default"))) int platform_probe_answer(void) { return 42; }
