// Makes recovery codes for the service's emergency options.
//   recovery_code keygen PRIVATE_FILE PUBLIC_FILE     new key pair, hex text files; build the
//                                                    service with -DNV_RECOVERY_PUBLIC_KEY=PUBLIC_FILE
//   recovery_code make PRIVATE_FILE MACHINE_GUID YYYYMMDD
//                                                    prints the code for that machine, valid
//                                                    through that day (UTC)
// The code goes into HKLM\Software\Norvale\NVClientHelper\EmergencyRecover "code" (REG_SZ),
// beside the options it unlocks.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/recovery_code/signer.h"

namespace {

bool write_file(const char* path, const std::vector<unsigned char>& blob) {
    std::ofstream out(path, std::ios::binary);
    out << nv_tools::to_hex(blob) << "\n";
    out.close();
    if (out) return true;
    fprintf(stderr, "cannot write %s\n", path);
    return false;
}

bool read_file(const char* path, std::vector<unsigned char>& blob) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in && nv_tools::from_hex(text.str(), blob) && !blob.empty();
}

int usage() {
    fprintf(stderr,
            "usage: recovery_code keygen PRIVATE_FILE PUBLIC_FILE\n"
            "       recovery_code make PRIVATE_FILE MACHINE_GUID YYYYMMDD\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && strcmp(argv[1], "keygen") == 0) {
        std::vector<unsigned char> private_blob;
        std::vector<unsigned char> public_blob;
        if (!nv_tools::generate_key_pair(private_blob, public_blob)) {
            fprintf(stderr, "key generation failed (error 0x%lx)\n", static_cast<unsigned long>(GetLastError()));
            return 1;
        }
        return write_file(argv[2], private_blob) && write_file(argv[3], public_blob) ? 0 : 1;
    }
    if (argc == 5 && strcmp(argv[1], "make") == 0) {
        std::vector<unsigned char> private_blob;
        if (!read_file(argv[2], private_blob)) {
            fprintf(stderr, "cannot read the private key %s\n", argv[2]);
            return 1;
        }
        const std::string date = argv[4];
        if (date.size() != 8 || date.find_first_not_of("0123456789") != std::string::npos) return usage();
        std::string code;
        if (!nv_tools::make_recovery_code(private_blob, argv[3], date, code)) {
            fprintf(stderr, "signing failed\n");
            return 1;
        }
        printf("%s\n", code.c_str());
        return 0;
    }
    return usage();
}
