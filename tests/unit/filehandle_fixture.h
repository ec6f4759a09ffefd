// What the tests of the configuration file store share: the file in a directory that belongs to the test
// alone.
#pragma once

#include "ea/e_a_error.h"
#include "ea/filehandle.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

inline constexpr char STORE_DIR[] = "/usr/lib/voltaria";

// The path of the store is fixed, so these tests run where that directory is a private mount, never on the
// directory of an installed agent.
inline bool store_is_private()
{
    struct stat directory, parent;
    return stat(STORE_DIR, &directory) == 0 && stat("/usr/lib", &parent) == 0 &&
           directory.st_dev != parent.st_dev && access(STORE_DIR, W_OK) == 0;
}

inline void put_config(std::string_view text)
{
    std::ofstream file(CONFIG_FILE, std::ios::binary | std::ios::trunc);
    file << text;
}

inline std::string config_text()
{
    std::ifstream file(CONFIG_FILE, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Only so many more descriptors can be opened, while it lives.
class FewDescriptors
{
  public:
    explicit FewDescriptors(int more)
    {
        const int next = dup(0);
        close(next);
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit limit = {static_cast<rlim_t>(next + more), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~FewDescriptors()
    {
        setrlimit(RLIMIT_NOFILE, &before_);
    }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

  private:
    rlimit before_{};
};

class ConfigStore : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(store_is_private())
            << STORE_DIR << " must be a private, writable mount: run this in the sandbox";
        remove_config();
        errbuffer.fill('\0');
        Dcflags = 0;
    }

    void TearDown() override
    {
        if (!store_is_private())
            return;
        close_write_batch();
        remove_config();
    }

    static void remove_config()
    {
        std::remove(CONFIG_FILE);
    }

    static std::string last_error()
    {
        return errbuffer.data();
    }

    // The value, or this text when there is none.
    static std::string read(const char *section, const char *key)
    {
        const char *value = readparam(section, key);
        return value == nullptr ? "(null)" : value;
    }
};
