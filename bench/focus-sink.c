/* The magnifier's end for the latency benchmark: binds a UDP port on 127.0.0.1, writes
 * "port N" on standard output, then one line per datagram received: the monotonic clock in
 * microseconds at its arrival (the clock GTK's g_get_monotonic_time reads) and the datagram.
 * It answers nothing; the agent sends focus areas without waiting for replies.
 *
 * Usage: orv-focus-sink [PORT]   (0 or nothing: any free port) */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>

int main(int argc, char **argv) {
    const int port = argc > 1 ? atoi(argv[1]) : 0;
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in at = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof at;
    if (sock < 0 || bind(sock, (struct sockaddr *)&at, sizeof at) != 0 ||
        getsockname(sock, (struct sockaddr *)&at, &len) != 0) {
        perror("orv-focus-sink");
        return 1;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    printf("port %d\n", ntohs(at.sin_port));
    char packet[2048];
    for (;;) {
        const ssize_t n = recv(sock, packet, sizeof packet - 1, 0);
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (n <= 0) continue;
        packet[n] = 0;
        printf("%lld %s\n", (long long)now.tv_sec * 1000000 + now.tv_nsec / 1000, packet);
    }
}
