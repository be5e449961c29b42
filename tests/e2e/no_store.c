/* A module that loads well and exports no store. */
__attribute__((visibility("default"))) extern const int not_a_store;
const int not_a_store = 1;
