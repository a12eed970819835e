// A filter that is asked about everything and changes nothing: what the protocol alone costs.
#include <libmilter/mfapi.h>

#include <cstdio>
#include <cstdlib>

namespace {

sfsistat connected(SMFICTX*, char*, _SOCK_ADDR*) {
    return SMFIS_CONTINUE;
}
sfsistat line(SMFICTX*, char**) {
    return SMFIS_CONTINUE;
}
sfsistat greeted(SMFICTX*, char*) {
    return SMFIS_CONTINUE;
}
sfsistat header(SMFICTX*, char*, char*) {
    return SMFIS_CONTINUE;
}
sfsistat body(SMFICTX*, unsigned char*, std::size_t) {
    return SMFIS_CONTINUE;
}
sfsistat ended(SMFICTX*) {
    return SMFIS_CONTINUE;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 2) {
        std::fputs("usage: idle_milter SOCKET\n", stderr);
        return 2;
    }
    char name[] = "idle";
    smfiDesc description{};
    description.xxfi_name = name;
    description.xxfi_version = SMFI_VERSION;
    description.xxfi_flags = SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY | SMFIF_DELRCPT;
    description.xxfi_connect = connected;
    description.xxfi_helo = greeted;
    description.xxfi_envfrom = line;
    description.xxfi_envrcpt = line;
    description.xxfi_header = header;
    description.xxfi_eoh = ended;
    description.xxfi_body = body;
    description.xxfi_eom = ended;
    if (smfi_setconn(argv[1]) != MI_SUCCESS || smfi_register(description) != MI_SUCCESS) {
        return EXIT_FAILURE;
    }
    return smfi_main() == MI_SUCCESS ? EXIT_SUCCESS : EXIT_FAILURE;
}
