/* The least a focus follower on AT-SPI can do, as the yardstick for the agent's speed: on every
 * focus-in it reads the object's screen extents, turns them to the bottom-left origin of the
 * primary screen and sends the agent's focus-area datagram to the magnifier's port. GTK sends
 * each focus-in twice; the second for the same object is skipped before any call.
 *
 * Usage: orv-minimal-listener PORT SCREEN_HEIGHT [SCREEN_X SCREEN_Y]
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
static AtspiAccessible *last;

static void on_focus(AtspiEvent *event, void *data) {
    (void)data;
    if (!event->detail1 || !event->source || event->source == last) return;
    AtspiComponent *component = atspi_accessible_get_component_iface(event->source);
    if (!component) return;
    AtspiRect *r = atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN, NULL);
    g_object_unref(component);
    if (!r) return;
    if (last) g_object_unref(last);
    last = g_object_ref(event->source);
    char packet[128];
    const int x = r->x - screen_x;
    const int y = screen_height - (r->y - screen_y) - r->height;
    const int n = snprintf(packet, sizeof packet, "ORVCommReq%08lu:4120012:%d:%d:%d:%d:0:0:2",
                           ++counter, x, y, r->width, r->height);
    g_free(r);
    if (send(sock, packet, (size_t)n, 0) < 0) perror("orv-minimal-listener: send");
}

int main(int argc, char **argv) {
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
    if (sock < 0 || connect(sock, (struct sockaddr *)&to, sizeof to) != 0) {
        perror("orv-minimal-listener: socket");
        return 1;
    }
    if (atspi_init() > 1) {
        fprintf(stderr, "orv-minimal-listener: no accessibility bus\n");
        return 1;
    }
    AtspiEventListener *listener = atspi_event_listener_new(on_focus, NULL, NULL);
    if (!atspi_event_listener_register(listener, "object:state-changed:focused", NULL)) {
        fprintf(stderr, "orv-minimal-listener: cannot listen to focus events\n");
        return 1;
    }
    fprintf(stderr, "orv-minimal-listener: listening, sending to 127.0.0.1:%d\n", port);
    atspi_event_main();
    return 0;
}
