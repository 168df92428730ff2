/* GPIO pin layer over sysfs (Part 2.1). Lines are named by their number as
 * decimal text; every operation opens the sysfs file, does one read or
 * write, and closes it again. */
#ifndef ZARVENT_GPIO_WORK_H
#define ZARVENT_GPIO_WORK_H

/* Writes the pin text with its terminating zero to /sys/class/gpio/export. */
int PinAddToWorkspace(const char *pin);
/* Writes "out" with its terminator (4 bytes) to the line's direction file. */
int PinSetDirectionOut(const char *pin);
/* Writes "in" with its terminator (3 bytes) to the line's direction file. */
int PinSetDirectionIn(const char *pin);
/* Writes the value as "%d" text (no terminator, no newline) to the line's value file. */
int PinSetOutput(const char *pin, int value);
/* Reads the line's level; a line that cannot be opened or read reads as 0. */
int PinGetInput(const char *pin);
/* Writes the edge text with its terminator; "gpio/set-edge" and a negative result when the file
 * cannot be opened. */
int GpioSetEdge(int gpio, const char *edge);

#endif
