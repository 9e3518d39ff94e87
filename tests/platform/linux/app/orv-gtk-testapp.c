/* A small GTK3 window for the desktop backend's tests: two buttons, a text field, a password
 * field, a check box, a list and a text area, each with a fixed accessible name. It reads
 * commands from standard input, one per line:
 *   focus NAME    give keyboard focus to the widget with that accessible name
 *   next          move focus to the next widget, as Tab does
 *   move X Y      move the window
 *   text STRING   replace the text field's contents
 *   quit          end
 * With --cycle MS it moves focus to the next widget every MS milliseconds by itself; with
 * --no-stdin it ignores standard input (and does not end when it closes).
 * It writes "ready" on standard output once its window has been shown. */
#include <gtk/gtk.h>
#include <stdlib.h>
#include <string.h>

static GtkWidget *window;
static GtkWidget *entry;
static GHashTable *by_name;

static void name_widget(GtkWidget *w, const char *name) {
    gtk_widget_set_name(w, name);
    atk_object_set_name(gtk_widget_get_accessible(w), name);
    g_hash_table_insert(by_name, g_strdup(name), w);
}

static void handle(const char *line) {
    if (g_str_has_prefix(line, "focus ")) {
        GtkWidget *w = g_hash_table_lookup(by_name, line + 6);
        if (w) gtk_widget_grab_focus(w);
        else g_printerr("no widget named '%s'\n", line + 6);
    } else if (strcmp(line, "next") == 0) {
        g_signal_emit_by_name(window, "move-focus", GTK_DIR_TAB_FORWARD);
    } else if (g_str_has_prefix(line, "move ")) {
        int x = 0, y = 0;
        if (sscanf(line + 5, "%d %d", &x, &y) == 2) gtk_window_move(GTK_WINDOW(window), x, y);
    } else if (g_str_has_prefix(line, "text ")) {
        gtk_entry_set_text(GTK_ENTRY(entry), line + 5);
    } else if (strcmp(line, "quit") == 0) {
        gtk_main_quit();
    }
}

static gboolean on_stdin(GIOChannel *ch, GIOCondition cond, gpointer data) {
    (void)data;
    gchar *line = NULL;
    gsize len = 0;
    GIOStatus st = g_io_channel_read_line(ch, &line, &len, NULL, NULL);
    if (st == G_IO_STATUS_EOF || (cond & (G_IO_HUP | G_IO_ERR))) {
        g_free(line);
        gtk_main_quit();
        return G_SOURCE_REMOVE;
    }
    if (line) {
        g_strchomp(line);
        handle(line);
        g_free(line);
    }
    return G_SOURCE_CONTINUE;
}

static gboolean cycle(gpointer data) {
    (void)data;
    g_signal_emit_by_name(window, "move-focus", GTK_DIR_TAB_FORWARD);
    return G_SOURCE_CONTINUE;
}

static gboolean announce(GtkWidget *w, GdkEvent *ev, gpointer data) {
    (void)w; (void)ev; (void)data;
    static gboolean said = FALSE;
    if (!said) {
        said = TRUE;
        printf("ready\n");
        fflush(stdout);
    }
    return FALSE;
}

int main(int argc, char **argv) {
    int cycle_ms = 0;
    gboolean use_stdin = TRUE;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--cycle") == 0 && i + 1 < argc) cycle_ms = atoi(argv[++i]);
        if (strcmp(argv[i], "--no-stdin") == 0) use_stdin = FALSE;
    }
    g_set_prgname("orv-gtk-testapp");
    gtk_init(&argc, &argv);
    by_name = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, NULL);

    window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), "Ocuvane Test");
    gtk_window_set_default_size(GTK_WINDOW(window), 420, 460);
    gtk_window_move(GTK_WINDOW(window), 60, 40);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);

    GtkWidget *box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    gtk_container_set_border_width(GTK_CONTAINER(box), 12);
    gtk_container_add(GTK_CONTAINER(window), box);

    GtkWidget *first = gtk_button_new_with_label("First");
    name_widget(first, "First");
    GtkWidget *second = gtk_button_new_with_label("Second");
    name_widget(second, "Second");
    entry = gtk_entry_new();
    name_widget(entry, "Name field");
    GtkWidget *password = gtk_entry_new();
    gtk_entry_set_visibility(GTK_ENTRY(password), FALSE);
    name_widget(password, "Password field");
    GtkWidget *check = gtk_check_button_new_with_label("Check me");
    name_widget(check, "Check me");

    GtkWidget *list = gtk_list_box_new();
    name_widget(list, "Items");
    for (int i = 1; i <= 3; i++) {
        char label[32];
        snprintf(label, sizeof label, "Row %d", i);
        gtk_container_add(GTK_CONTAINER(list), gtk_label_new(label));
    }
    GtkWidget *area = gtk_text_view_new();
    name_widget(area, "Notes");
    gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(area)), "one\ntwo", -1);
    GtkWidget *scroll = gtk_scrolled_window_new(NULL, NULL);
    gtk_widget_set_size_request(scroll, -1, 80);
    gtk_container_add(GTK_CONTAINER(scroll), area);

    gtk_box_pack_start(GTK_BOX(box), first, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), second, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), entry, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), password, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), check, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), list, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), scroll, TRUE, TRUE, 0);

    g_signal_connect(window, "map-event", G_CALLBACK(announce), NULL);
    if (use_stdin) {
        GIOChannel *in = g_io_channel_unix_new(0);
        g_io_add_watch(in, G_IO_IN | G_IO_HUP | G_IO_ERR, on_stdin, NULL);
    }
    if (cycle_ms > 0) g_timeout_add(cycle_ms, cycle, NULL);

    gtk_widget_show_all(window);
    gtk_widget_grab_focus(first);
    gtk_main();
    return 0;
}
