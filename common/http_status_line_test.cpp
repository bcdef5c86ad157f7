#include "common/http_status_line.h"

#include <gtest/gtest.h>

namespace vantor {
namespace {

TEST(HttpStatusLineTest, HasAVersionAndThreeDigits) {
    for (const char* line : {"HTTP/1.1 200 OK\r\n", "HTTP/1.0 500 \r\n", "HTTP/1.1 404\r\n",
                             "HTTP/2 200 \r\n", "HTTP/1.1 200\n", "HTTP/1.1 200"})
        EXPECT_FALSE(isBrokenStatusLine(line)) << line;
}

TEST(HttpStatusLineTest, IsBrokenOtherwise) {
    for (const char* line :
         {"HTTP/x.1 500 No\r\n", "HTTP/.1 500 No\r\n", "HTTP/1.1.200 500 No\r\n", "HTTP/11 200 OK\r\n",
          "HTTP/1.1  200 OK\r\n", "HTTP/1.1 20 OK\r\n", "HTTP/1.1 2000 OK\r\n", "HTTP/2 2000\r\n",
          "HTTP/1.1 -20\r\n", "HTTP/\r\n", "HTTP/", "http/1.1 200 OK\r\n"})
        EXPECT_TRUE(isBrokenStatusLine(line)) << line;
}

TEST(HttpStatusLineTest, IsNoOtherLine) {
    for (const char* line : {"Content-Length: 0\r\n", "\r\n", "", "HTTP", "HTTP-Status: 500\r\n"})
        EXPECT_FALSE(isBrokenStatusLine(line)) << line;
}

} // namespace
} // namespace vantor
