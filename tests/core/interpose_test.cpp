// An application function named like a library helper must not replace it inside the library.
#include <cstdarg>
#include <string>

#include <vekutil/debug.h>
#include <vekutil/memory.h>
#include <vekutil/strutil.h>

#include "vek_test.hpp"

// The application's "format", with the library's signature.
extern "C" const char* format(const char*, ...) { return "application's format"; }

namespace {

TEST(Interposition, LibraryKeepsItsOwnHelpers) {
  char* msg = nullptr;
  ASSERT_EQ(debug_get_max_threads(&msg), 0);
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(std::string(msg).rfind("Max Threads -> (Soft:", 0), 0u) << msg;
  _vekFree(msg, __FILE__, __LINE__);
}

}  // namespace
