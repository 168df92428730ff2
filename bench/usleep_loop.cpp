// The floor of the daemon's idle cost: a loop that only sleeps 500 µs, as the
// cycle thread's poll of line 19 does between its reads.
#include <unistd.h>

int main()
{
    for (;;)
        ::usleep(500);
}
