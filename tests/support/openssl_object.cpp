#include "tests/support/openssl_object.h"

#include <cstdio>
#include <cstdlib>
#include <openssl/err.h>

namespace vantor::test {

void requireOpenssl(bool succeeded, const std::string& task) {
    if (succeeded)
        return;

    (void)fprintf(stderr, "cannot %s\n", task.c_str());
    ERR_print_errors_fp(stderr);
    abort();
}

} // namespace vantor::test
