/* The least a text cursor follower on AT-SPI can do, as the yardstick for the agent's cursor
 * road: on every caret move it reads the character extents at the caret (at the end of the text,
 * or where they are empty, the right edge of the character before), turns them to the
 * bottom-left origin of the primary screen and sends the agent's focus-area datagram for a
 * cursor 1 px wide to the magnifier's port.
 *
 * Usage: orv-minimal-caret-listener PORT SCREEN_HEIGHT [SCREEN_X SCREEN_Y]
 * (the primary monitor's height and top-left corner in X screen coordinates). */
#include <arpa/inet.h>
#include <atspi/atspi.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

static int sock = -1;
static int screen_height, screen_x, screen_y;
static unsigned long counter;

static AtspiRect* extents(AtspiText* text, int offset) {
    AtspiRect* r = atspi_text_get_character_extents(text, offset, ATSPI_COORD_TYPE_SCREEN, NULL);
    if (r && r->width <= 0 && r->height <= 0) g_clear_pointer(&r, g_free);
    return r;
}

static void on_caret(AtspiEvent* event, void* data) {
    (void)data;
    if (!event->source) return;
    AtspiText* text = atspi_accessible_get_text_iface(event->source);
    if (!text) return;
    const int offset = event->detail1;
    const int count = atspi_text_get_character_count(text, NULL);
    AtspiRect* r = offset < count ? extents(text, offset) : NULL;
    int x = r ? r->x : 0;
    if (!r && offset > 0 && (r = extents(text, offset - 1))) x = r->x + r->width;
    g_object_unref(text);
    if (!r) return;
    char packet[128];
    const int y = screen_height - (r->y - screen_y) - r->height;
    const int n = snprintf(packet, sizeof packet, "ORVCommReq%08lu:4120012:%d:%d:1:%d:0:0:1",
                           ++counter, x - screen_x, y, r->height);
    g_free(r);
    if (send(sock, packet, (size_t)n, 0) < 0) perror("orv-minimal-caret-listener: send");
}

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) {
        fprintf(stderr, "usage: %s PORT SCREEN_HEIGHT [SCREEN_X SCREEN_Y]\n", argv[0]);
        return 2;
    }
    const int port = atoi(argv[1]);
    screen_height = atoi(argv[2]);
    if (argc == 5) screen_x = atoi(argv[3]), screen_y = atoi(argv[4]);

    sock = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sock < 0 || connect(sock, (struct sockaddr*)&to, sizeof to) != 0) {
        perror("orv-minimal-caret-listener: socket");
        return 1;
    }
    if (atspi_init() > 1) {
        fprintf(stderr, "orv-minimal-caret-listener: no accessibility bus\n");
        return 1;
    }
    AtspiEventListener* listener = atspi_event_listener_new(on_caret, NULL, NULL);
    if (!atspi_event_listener_register(listener, "object:text-caret-moved", NULL)) {
        fprintf(stderr, "orv-minimal-caret-listener: cannot listen to caret moves\n");
        return 1;
    }
    fprintf(stderr, "orv-minimal-caret-listener: listening, sending to 127.0.0.1:%d\n", port);
    atspi_event_main();
    return 0;
}
