// Protecting and unprotecting key trees: time per subkey for trees of 100, 1,000 and 10,000
// subkeys, and how the largest tree's cost per subkey compares with the 1,000 one (linear: about 1).
//
//   regkey_bench [KEY]     works under HKLM\KEY (default Software\NvRegKeyBench), removed afterwards
//   regkey_bench smoke     trees of 10, 50 and 100 subkeys under the default key, in seconds
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/clock.h"
#include "mcl/mswin/reg.h"
#include "service/regkey_protection.h"

namespace {

double micros_since(double start_ms) { return 1000.0 * (nv_bench::now_ms() - start_ms); }

// A root with `count` subkeys, a hundred to a branch, so the tree has two levels below the root.
bool make_tree(const std::string& root, int count) {
    for (int i = 0; i < count; ++i) {
        const std::string path = root + "\\b" + std::to_string(i / 100) + "\\k" + std::to_string(i % 100);
        HKEY key = nullptr;
        if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
            ERROR_SUCCESS)
            return false;
        RegCloseKey(key);
    }
    return true;
}

struct figures {
    double protect_us = 0;
    double unprotect_us = 0;
};

bool measure(const std::string& base, int count, figures& f) {
    const std::string root = base + "\\tree" + std::to_string(count);
    if (!make_tree(root, count)) return false;
    const int keys = count + (count + 99) / 100;  // the leaves and their branch keys
    std::string original, current;
    double start = nv_bench::now_ms();
    const bool protected_ok = regProtector::protect(HKEY_LOCAL_MACHINE, root, {"norvale_halvern_svc", "nv_bench_owner"},
                                                    /*level=*/1, original, current);
    f.protect_us = micros_since(start) / keys;
    start = nv_bench::now_ms();
    const bool restored = regkey::restore_key_tree(HKEY_LOCAL_MACHINE, root, original);
    f.unprotect_us = micros_since(start) / keys;
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, root, nullptr);
    return protected_ok && restored;
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = argc > 1 && strcmp(argv[1], "smoke") == 0;
    const std::string base = argc > 1 && !smoke ? argv[1] : "Software\\NvRegKeyBench";
    const int full_sizes[] = {100, 1000, 10000};
    const int smoke_sizes[] = {10, 50, 100};
    const int* sizes = smoke ? smoke_sizes : full_sizes;
    figures results[3];
    for (int i = 0; i < 3; ++i) {
        if (!measure(base, sizes[i], results[i])) {
            fprintf(stderr, "regkey_bench: the tree of %d subkeys could not be protected and restored\n", sizes[i]);
            return 1;
        }
        printf("protect_%d_subkeys: %.1f us/subkey\n", sizes[i], results[i].protect_us);
        printf("unprotect_%d_subkeys: %.1f us/subkey\n", sizes[i], results[i].unprotect_us);
    }
    printf("protect_%d_vs_%d_per_subkey: %.2f ratio\n", sizes[2], sizes[1], results[2].protect_us / results[1].protect_us);
    printf("unprotect_%d_vs_%d_per_subkey: %.2f ratio\n", sizes[2], sizes[1],
           results[2].unprotect_us / results[1].unprotect_us);
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, base, nullptr);
    return 0;
}
