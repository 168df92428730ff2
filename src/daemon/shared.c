/* Shared state (Part 1.2). */
#include "daemon/shared.h"

#include <string.h>

#include "platform/platform.h"

char Command_Out[CO_SIZE];
struct stat_out Stat_Out;
struct tm *timeinfo;
int32_t Sync_En;
int32_t DAC_VOLTAGE = 32768;
_Atomic uint8_t Alarm;
_Atomic int32_t Leap_Time;
int32_t Jitter;

pthread_t threadFPGA, threadLED, threadINT;
uint8_t first_f = 1;
int32_t Save_Sync = 32768;
int32_t Sync_Offset, Summ_prev;
int64_t Intg;
uint32_t flags;
uint8_t over_1, over_2;
time_t event1, event2, now;
uint8_t Trans_count = 1;
int32_t Max, Min, n;
uint32_t sync_count;
uint8_t smode = 1, bits;
uint32_t dataLen;
uint8_t scount;
char buffer[100];
float z_prev, dz_prev;
uint8_t UptimeFlag = 1;
uint8_t alarm_latch;
time_t event, now_en;
uint8_t over;
int32_t cfgOk;
const char *FPGA_A5 = "AA AA A5";

atomic_int dac_lines_ready;
pthread_mutex_t reg2_lock = PTHREAD_MUTEX_INITIALIZER;

/* Guards Command_Out and the time snapshot. Held only for a copy, never
 * across a call to the OS seam. */
static pthread_mutex_t shared_lock = PTHREAD_MUTEX_INITIALIZER;
static struct tm timeinfo_store;

void command_out_put(size_t pos, const char *src, size_t len)
{
    if (pos >= CO_SIZE)
        return;
    if (len > CO_SIZE - pos)
        len = CO_SIZE - pos;
    pthread_mutex_lock(&shared_lock);
    memcpy(Command_Out + pos, src, len);
    pthread_mutex_unlock(&shared_lock);
}

void command_out_get(size_t pos, char *dst, size_t len)
{
    size_t have = pos < CO_SIZE ? CO_SIZE - pos : 0;
    pthread_mutex_lock(&shared_lock);
    if (len <= have) {
        memcpy(dst, Command_Out + pos, len);
    } else {
        memcpy(dst, Command_Out + pos, have);
        memset(dst + have, 0, len - have);
    }
    pthread_mutex_unlock(&shared_lock);
}

void command_out_set_byte(size_t pos, unsigned char value)
{
    char c = (char)value;
    command_out_put(pos, &c, 1);
}

unsigned char command_out_byte(size_t pos)
{
    char c = 0;
    command_out_get(pos, &c, 1);
    return (unsigned char)c;
}

void command_out_text(size_t pos, char *dst, size_t max)
{
    if (max == 0)
        return;
    command_out_get(pos, dst, max - 1);
    dst[max - 1] = '\0';
}

void timeinfo_refresh(time_t t)
{
    struct tm local;
    if (plat_localtime(t, &local) == NULL)
        return;
    pthread_mutex_lock(&shared_lock);
    timeinfo_store = local;
    /* The pointer is set once, by CreateRAMDisk before any thread starts;
     * later refreshes change only what it points to. */
    if (timeinfo == NULL)
        timeinfo = &timeinfo_store;
    pthread_mutex_unlock(&shared_lock);
}

void timeinfo_get(struct tm *out)
{
    pthread_mutex_lock(&shared_lock);
    *out = timeinfo_store;
    pthread_mutex_unlock(&shared_lock);
}
