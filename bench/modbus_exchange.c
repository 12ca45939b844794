/* A master that makes N exchanges through libmodbus, one after the other, and prints the processor time of each in
 * milliseconds: 12 bytes out, SIZE bytes back.
 *
 *     modbus_exchange DEVICE N SIZE
 */
#include <modbus/modbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

int main(int argc, char* argv[]) {
    if (argc != 4) {
        return 2;
    }
    const int count = atoi(argv[2]);
    const int size = atoi(argv[3]);
    modbus_t* line = modbus_new_rtu(argv[1], 9600, 'N', 8, 1);
    if (line == NULL || modbus_connect(line) == -1) {
        perror(argv[1]);
        return 1;
    }
    modbus_set_slave(line, 1);
    modbus_set_response_timeout(line, 1, 0);
    /* Address and function; the library adds the check: twelve bytes in all. */
    const uint8_t query[10] = {1, MODBUS_FC_READ_HOLDING_REGISTERS};
    uint8_t reply[MODBUS_RTU_MAX_ADU_LENGTH];
    for (int i = 0; i < count; ++i) {
        if (modbus_send_raw_request(line, query, sizeof(query)) == -1 ||
            modbus_receive_confirmation(line, reply) != size) {
            perror("exchange");
            return 1;
        }
    }
    struct rusage used;
    getrusage(RUSAGE_SELF, &used);
    printf("%.4f\n", ((double)used.ru_utime.tv_sec * 1e3 + (double)used.ru_utime.tv_usec / 1e3 +
                      (double)used.ru_stime.tv_sec * 1e3 + (double)used.ru_stime.tv_usec / 1e3) /
                         count);
    modbus_close(line);
    modbus_free(line);
    return 0;
}
