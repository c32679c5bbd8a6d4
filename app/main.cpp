// app: the kestrel server.
#include "app/hooks.h"
#include "app/root_table.h"

int main(int argc, char **argv) {
    kestrel::pt_set_root(kestrel::main_parse_tree);
    kestrel::sv_hooks = kestrel::app_hooks();
    return kestrel::sv_main(argc, argv);
}
