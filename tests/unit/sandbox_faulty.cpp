// A daemon with a fault, for the tests of the sandbox: it leaves the terminal, closes every descriptor, says
// through /tmp/faulty that it is about to, and then reads memory that it has given back.

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

int main()
{
    if (fork() != 0)
        _exit(0);
    setsid();
    for (int fd = 0; fd < 256; fd++)
        close(fd);
    volatile char *memory = static_cast<volatile char *>(std::malloc(8));
    std::free(const_cast<char *>(memory));
    close(open("/tmp/faulty", O_WRONLY | O_CREAT, 0644));
    return memory[3];
}
