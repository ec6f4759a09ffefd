// Debug output of both processes, into one file that is opened anew for each text, so that it may be removed
// or truncated at any moment by whoever reads it. Called from everywhere in the daemon.
#include "agent_utils_output.h"

#include "wp_strings.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static constexpr blkcnt_t FULL_BLOCKS = 1024;  // of 512 bytes
static constexpr uid_t FILE_OWNER = 0;
static constexpr gid_t FILE_GROUP = 1;
static constexpr std::size_t LINE_MAX_TEXT = 254;
static constexpr char RULE[] = "-------------------------------\n";

// A link in the file's place is refused, a pipe or a terminal there never blocks or becomes ours. O_APPEND,
// because both processes write here.
static constexpr int SAFELY = O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// Without O_EXCL: when the other process creates the file at the same moment, no text is lost.
static int create_debug_file()
{
    const int fd = open(DEBUG_FILE, O_WRONLY | O_CREAT | SAFELY, 0600);
    if (fd >= 0 && fchown(fd, FILE_OWNER, FILE_GROUP) != 0)
        perror("user_printf: fchown");  // the wrong owner is no reason to lose the text
    return fd;
}

static int open_debug_file()
{
    struct stat state = {};
    if (lstat(DEBUG_FILE, &state) != 0)
        return create_debug_file();
    const int mode = state.st_blocks > FULL_BLOCKS ? O_WRONLY | O_TRUNC : O_RDWR;
    return open(DEBUG_FILE, mode | SAFELY);
}

int user_printf(const char *text)
{
    const int fd = open_debug_file();
    if (fd < 0)
        return 0;
    const std::size_t length = wp_strlen(text);
    const off_t position = lseek(fd, 0, SEEK_END);
    const ssize_t written = length > 0 ? write(fd, text, length) : 0;
    close(fd);
    // A file that already had content reports -1 although the text is in it; kept, callers ignore the result.
    return position != 0 || written != static_cast<ssize_t>(length) ? -1 : 0;
}

int printf0(const char *text)
{
    return user_printf(text);
}

int printf1(const char *text)
{
    const int before = user_printf(RULE);
    const int middle = user_printf(text);
    const int after = user_printf(RULE);
    return before != 0 || middle != 0 || after != 0 ? -1 : 0;
}

int printfn(char *text)
{
    const std::size_t length = wp_strlen(text);
    if (length > LINE_MAX_TEXT)
        text[LINE_MAX_TEXT] = '\0';
    std::array<char, LINE_MAX_TEXT + 2> line{};
    wp_strcpy(line.data(), text);
    wp_strcat(line.data(), "\n");
    return user_printf(line.data());
}
