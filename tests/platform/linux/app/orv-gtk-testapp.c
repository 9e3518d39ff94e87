/* A small GTK3 window for the desktop tests: two buttons, a text field, a password field, a
 * check box, two radio buttons, a list of three rows and a text area, each with a fixed name
 * (the accessible name, except for the rows, whose accessible text is their label). It reads
 * commands from standard input, one per line:
 *   focus NAME      give keyboard focus to the widget with that name
 *   next            move focus to the next widget, as Tab does
 *   unfocus         leave the window without a focused widget
 *   announce NAME   what GtkListBox does with its rows: focus leaves the current widget, NAME
 *                   is announced focused at once, and really gets focus 300 ms later
 *   grid            add, under the text area, a box with the table role ("Grid") holding two
 *                   buttons, "Cell A" and "Cell B": a table whose cells take focus themselves
 *   describe        add, under the text area, a menu bar with a "File" menu that is never opened
 *                   (items "Save" Control+S, "Redo" Control+Shift+Z, "Quit" Alt+F4, the check
 *                   item "Wrap" Control+Down, the radio item "Erase" Control+BackSpace, "Zoom in"
 *                   Control+plus, "Top" Alt+Home, "Plain" with none; mnemonics on all but
 *                   "Plain"), a button "Tip" with the tooltip "Shows a tip" and the accessible
 *                   id "tip-button", and a slider
 *                   "Level" at 30 of 0..100
 *   tell NAME       what Qt does with a tree view after its current cell: NAME is announced
 *                   focused, and the focus stays where it is
 *   gap MS NAME     what toolkits do between two focuses: focus leaves the current widget, and
 *                   NAME gets focus MS ms later
 *   close-gap MS NAME  what a dialog closing does: the focused widget is destroyed, and NAME
 *                   gets focus MS ms later
 *   menu            pop up a menu (items "Open", "Save", "Close") under "First", its first item
 *                   selected
 *   next-menu       what a menu bar does on Right: hide that menu and pop up another ("Cut",
 *                   "Copy", "Paste") with its first item selected; the hidden item has no
 *                   focus-out
 *   popover         pop up a popover under "First" holding one button, "Inside", which gets
 *                   focus; GTK slides the popover into its place after it is shown. Once the
 *                   button has kept its place for 10 frames: "popover slid" (or "popover
 *                   still" if it never moved)
 *   cycle MS N      give focus to the next widget of the focus order every MS ms, N times,
 *                   then write "done"
 *   move X Y        move the window
 *   text STRING     replace the text field's contents (no STRING: empty it)
 *   notes STRING    replace the text area's contents (C escapes: \n is a new line)
 *   caret NAME OFFSET  give NAME ("Name field" or "Notes") focus, the cursor at OFFSET
 *   select NAME START END  the same, START to END selected with the cursor at END (START > END:
 *                   selected backwards)
 *   caret-cycle MS N  give "Notes" focus, then every MS ms move its cursor one place on, from
 *                   the start of the text to its end and round again (middles and ends of lines,
 *                   after each new line, the end of the text), N times, then write "done"
 *   sync            write "synced" once everything GTK had to do, idle callbacks included, is done
 *   quit            end
 * Options: --cycle MS starts an endless cycle at once; --no-stdin ignores standard input (and
 * does not end when it closes); --report writes on standard output, for every focus change,
 *   focus NAME X Y W H T
 * and, when the focused widget moves on screen without a focus change (the window moved),
 *   at NAME X Y W H T
 * with the widget's screen extents (X screen coordinates, top-left origin), NAME "(window)" and
 * the window frame's extents when no widget has focus, and T the monotonic clock in
 * microseconds when focus was set (when the move was seen). For every move of the cursor or
 * change of the selection in "Name field" or "Notes" (keys typed included; moves that come
 * together make one line), and after every caret or select command even if nothing moved:
 *   caret NAME OFFSET X Y W H T
 * with the cursor's character offset and GTK's own rectangle for the cursor (width 0 for a line
 * cursor) in the same coordinates, T the monotonic clock when it moved.
 * At start it writes "screen X Y W H" (the primary monitor), "xid N" (the window) and, once
 * the window has been shown, "ready". */
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <stdlib.h>
#include <string.h>

static GtkWidget *window;
static GtkWidget *entry;
static GtkWidget *notes;
static GHashTable *by_name;
static gboolean report;
static gboolean placed; /* the window manager has shown the window */

/* The focus order for cycles: what Tab visits, without the window's unfocused stop. */
static const char *const focus_order[] = {"First",   "Second",       "Name field", "Password field",
                                          "Check me", "Radio A",      "Row 1",      "Row 2",
                                          "Row 3",    "Notes"};
enum { kFocusOrderLength = sizeof focus_order / sizeof focus_order[0] };
static int cycle_next;
static int cycle_left = -1; /* -1: endless */
static guint cycle_source;

static void name_widget(GtkWidget *w, const char *name) {
    gtk_widget_set_name(w, name);
    atk_object_set_name(gtk_widget_get_accessible(w), name);
    g_hash_table_insert(by_name, g_strdup(name), w);
}

/* Where the user sees the focus: the focused widget's allocation on the screen, or the window
 * frame when nothing inside has focus. What the accessibility layer says is not asked. */
static void focus_extents(const char **name, GdkRectangle *r) {
    GtkWidget *w = gtk_window_get_focus(GTK_WINDOW(window));
    GdkWindow *top = gtk_widget_get_window(window);
    if (!w || !top) {
        *name = "(window)";
        if (top) gdk_window_get_frame_extents(top, r);
        else memset(r, 0, sizeof *r);
        return;
    }
    *name = gtk_widget_get_name(w);
    GtkAllocation a;
    gtk_widget_get_allocation(w, &a);
    int wx = 0, wy = 0, ox = 0, oy = 0;
    gtk_widget_translate_coordinates(w, window, 0, 0, &wx, &wy);
    gdk_window_get_origin(top, &ox, &oy);
    r->x = ox + wx;
    r->y = oy + wy;
    r->width = a.width;
    r->height = a.height;
}

static GdkRectangle last_reported;

static void report_focus(const char *kind) {
    /* Before the window manager has placed the window its origin is a guess. */
    if (!report || !placed) return;
    const gint64 now = g_get_monotonic_time();
    const char *name;
    GdkRectangle r;
    focus_extents(&name, &r);
    last_reported = r;
    printf("%s %s %d %d %d %d %" G_GINT64_FORMAT "\n", kind, name, r.x, r.y, r.width, r.height,
           now);
    fflush(stdout);
}

/* Runs after GtkWindow has moved the focus: the widget has it and its events are out. */
static void on_set_focus(GtkWindow *w, GtkWidget *focus, gpointer data) {
    (void)w; (void)focus; (void)data;
    report_focus("focus");
}

static gboolean check_moved(gpointer data) {
    (void)data;
    const char *name;
    GdkRectangle r;
    focus_extents(&name, &r);
    if (!gdk_rectangle_equal(&r, &last_reported)) report_focus("at");
    return G_SOURCE_REMOVE;
}

static gboolean on_configure(GtkWidget *w, GdkEvent *ev, gpointer data) {
    (void)w; (void)ev; (void)data;
    /* The new origin is known once GTK has handled the event. */
    if (report) g_idle_add(check_moved, NULL);
    return FALSE;
}

static gboolean cycle(gpointer data) {
    (void)data;
    if (cycle_left == 0) {
        cycle_source = 0;
        printf("done\n");
        fflush(stdout);
        return G_SOURCE_REMOVE;
    }
    if (cycle_left > 0) cycle_left--;
    GtkWidget *w = g_hash_table_lookup(by_name, focus_order[cycle_next]);
    cycle_next = (cycle_next + 1) % kFocusOrderLength;
    if (w) gtk_widget_grab_focus(w);
    return G_SOURCE_CONTINUE;
}

static void start_cycle(int ms, int count) {
    if (cycle_source) g_source_remove(cycle_source);
    /* The cycle starts after the widget that has focus now. */
    GtkWidget *focused = gtk_window_get_focus(GTK_WINDOW(window));
    cycle_next = 0;
    for (int i = 0; i < kFocusOrderLength; i++)
        if (focused && strcmp(gtk_widget_get_name(focused), focus_order[i]) == 0)
            cycle_next = (i + 1) % kFocusOrderLength;
    cycle_left = count;
    cycle_source = g_timeout_add(ms, cycle, NULL);
}

static gboolean grab_later(gpointer data) {
    gtk_widget_grab_focus(GTK_WIDGET(data));
    return G_SOURCE_REMOVE;
}

static gboolean synced(gpointer data) {
    (void)data;
    printf("synced\n");
    fflush(stdout);
    return G_SOURCE_REMOVE;
}

static GtkWidget *open_menu_widget;

static void open_menu(const char *const *items) {
    if (open_menu_widget) gtk_menu_popdown(GTK_MENU(open_menu_widget));
    GtkWidget *menu = gtk_menu_new();
    open_menu_widget = menu;
    for (int i = 0; i < 3; i++)
        gtk_menu_shell_append(GTK_MENU_SHELL(menu), gtk_menu_item_new_with_label(items[i]));
    gtk_widget_show_all(menu);
    GtkWidget *anchor = g_hash_table_lookup(by_name, "First");
    gtk_menu_popup_at_widget(GTK_MENU(menu), anchor, GDK_GRAVITY_SOUTH_WEST,
                             GDK_GRAVITY_NORTH_WEST, NULL);
    gtk_menu_shell_select_first(GTK_MENU_SHELL(menu), FALSE);
}

/* Watches the popover's button on every frame until it has kept its place for 10 frames, then
 * writes "popover slid" or "popover still" (whether it moved meanwhile). */
static gboolean watch_slide(GtkWidget *popover, GdkFrameClock *clock, gpointer data) {
    (void)clock; (void)data;
    static int x = -1, y = -1, same, moved, frames;
    GtkWidget *inside = g_hash_table_lookup(by_name, "Inside");
    GdkWindow *win = gtk_widget_get_window(inside);
    int ox = 0, oy = 0;
    if (win) gdk_window_get_origin(win, &ox, &oy);
    GtkAllocation a;
    gtk_widget_get_allocation(inside, &a);
    ox += a.x;
    oy += a.y;
    if (frames++ > 0 && (ox != x || oy != y)) moved = 1, same = 0;
    else same++;
    x = ox;
    y = oy;
    if (same < 10) return G_SOURCE_CONTINUE;
    printf("popover %s\n", moved ? "slid" : "still");
    fflush(stdout);
    x = y = -1, same = moved = frames = 0;
    (void)popover;
    return G_SOURCE_REMOVE;
}

static GtkWidget *main_box;

static void add_grid(void) {
    if (g_hash_table_lookup(by_name, "Grid")) return;
    GtkWidget *grid = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    name_widget(grid, "Grid");
    atk_object_set_role(gtk_widget_get_accessible(grid), ATK_ROLE_TABLE);
    GtkWidget *a = gtk_button_new_with_label("Cell A");
    name_widget(a, "Cell A");
    GtkWidget *b = gtk_button_new_with_label("Cell B");
    name_widget(b, "Cell B");
    gtk_box_pack_start(GTK_BOX(grid), a, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(grid), b, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(main_box), grid, FALSE, FALSE, 0);
    gtk_widget_show_all(grid);
}

static void add_shortcut(GtkWidget *menu, GtkWidget *item, GtkAccelGroup *group, guint key,
                         GdkModifierType mods) {
    if (key) gtk_widget_add_accelerator(item, "activate", group, key, mods, GTK_ACCEL_VISIBLE);
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), item);
}

static void add_described(void) {
    if (g_hash_table_lookup(by_name, "Tip")) return;
    GtkWidget *row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    GtkWidget *bar = gtk_menu_bar_new();
    GtkWidget *file = gtk_menu_item_new_with_mnemonic("_File");
    GtkWidget *menu = gtk_menu_new();
    GtkAccelGroup *group = gtk_accel_group_new();
    gtk_window_add_accel_group(GTK_WINDOW(window), group);
    gtk_menu_set_accel_group(GTK_MENU(menu), group);
    add_shortcut(menu, gtk_menu_item_new_with_mnemonic("_Save"), group, GDK_KEY_s,
                 GDK_CONTROL_MASK);
    add_shortcut(menu, gtk_menu_item_new_with_mnemonic("_Redo"), group, GDK_KEY_z,
                 GDK_CONTROL_MASK | GDK_SHIFT_MASK);
    add_shortcut(menu, gtk_menu_item_new_with_mnemonic("_Quit"), group, GDK_KEY_F4, GDK_MOD1_MASK);
    add_shortcut(menu, gtk_check_menu_item_new_with_mnemonic("_Wrap"), group, GDK_KEY_Down,
                 GDK_CONTROL_MASK);
    add_shortcut(menu, gtk_radio_menu_item_new_with_mnemonic(NULL, "_Erase"), group,
                 GDK_KEY_BackSpace, GDK_CONTROL_MASK);
    add_shortcut(menu, gtk_menu_item_new_with_mnemonic("_Zoom in"), group, GDK_KEY_plus,
                 GDK_CONTROL_MASK);
    add_shortcut(menu, gtk_menu_item_new_with_mnemonic("_Top"), group, GDK_KEY_Home,
                 GDK_MOD1_MASK);
    add_shortcut(menu, gtk_menu_item_new_with_label("Plain"), group, 0, 0);
    gtk_menu_item_set_submenu(GTK_MENU_ITEM(file), menu);
    gtk_menu_shell_append(GTK_MENU_SHELL(bar), file);
    GtkWidget *tip = gtk_button_new_with_label("Tip");
    name_widget(tip, "Tip");
    gtk_widget_set_tooltip_text(tip, "Shows a tip");
    atk_object_set_accessible_id(gtk_widget_get_accessible(tip), "tip-button");
    GtkWidget *level = gtk_scale_new_with_range(GTK_ORIENTATION_HORIZONTAL, 0, 100, 1);
    gtk_range_set_value(GTK_RANGE(level), 30);
    name_widget(level, "Level");
    gtk_box_pack_start(GTK_BOX(row), bar, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(row), tip, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(row), level, TRUE, TRUE, 0);
    gtk_box_pack_start(GTK_BOX(main_box), row, FALSE, FALSE, 0);
    gtk_widget_show_all(row);
}

static void open_popover(void) {
    static GtkWidget *popover;
    if (!popover) {
        popover = gtk_popover_new(g_hash_table_lookup(by_name, "First"));
        gtk_popover_set_position(GTK_POPOVER(popover), GTK_POS_BOTTOM);
        GtkWidget *inside = gtk_button_new_with_label("Inside");
        name_widget(inside, "Inside");
        gtk_container_add(GTK_CONTAINER(popover), inside);
        gtk_widget_show(inside);
    }
    gtk_popover_popup(GTK_POPOVER(popover));
    gtk_widget_grab_focus(g_hash_table_lookup(by_name, "Inside"));
    gtk_widget_add_tick_callback(popover, watch_slide, NULL, NULL);
}

/* Cursor moves in the text field (0) and the text area (1) wait for the idle after GTK's own
 * layout and validation idles, so that the rectangle read is the one GTK draws. */
static gint64 caret_since[2];
static guint caret_idle[2];

static GtkTextBuffer* notes_buffer(void) {
    return gtk_text_view_get_buffer(GTK_TEXT_VIEW(notes));
}

/* The cursor's offset and GTK's rectangle for it, in X screen coordinates. */
static int caret_extents(GtkWidget* w, GdkRectangle* r) {
    int offset, x, y;
    if (w == entry) {
        offset = gtk_editable_get_position(GTK_EDITABLE(entry));
        const char* text = gtk_entry_get_text(GTK_ENTRY(entry));
        const int byte = (int)(g_utf8_offset_to_pointer(text, offset) - text);
        PangoRectangle strong;
        pango_layout_get_cursor_pos(gtk_entry_get_layout(GTK_ENTRY(entry)),
                                    gtk_entry_text_index_to_layout_index(GTK_ENTRY(entry), byte),
                                    &strong, NULL);
        gtk_entry_get_layout_offsets(GTK_ENTRY(entry), &x, &y);
        x += PANGO_PIXELS(strong.x);
        y += PANGO_PIXELS(strong.y);
        r->width = PANGO_PIXELS(strong.width);
        r->height = PANGO_PIXELS(strong.height);
    } else {
        GtkTextIter at;
        gtk_text_buffer_get_iter_at_mark(notes_buffer(), &at,
                                         gtk_text_buffer_get_insert(notes_buffer()));
        offset = gtk_text_iter_get_offset(&at);
        GdkRectangle strong;
        gtk_text_view_get_cursor_locations(GTK_TEXT_VIEW(notes), &at, &strong, NULL);
        gtk_text_view_buffer_to_window_coords(GTK_TEXT_VIEW(notes), GTK_TEXT_WINDOW_WIDGET,
                                              strong.x, strong.y, &x, &y);
        r->width = strong.width;
        r->height = strong.height;
    }
    int wx = 0, wy = 0, ox = 0, oy = 0;
    gtk_widget_translate_coordinates(w, window, x, y, &wx, &wy);
    gdk_window_get_origin(gtk_widget_get_window(window), &ox, &oy);
    r->x = ox + wx;
    r->y = oy + wy;
    return offset;
}

static gboolean report_caret(gpointer data) {
    GtkWidget* w = data;
    const int i = w == notes;
    caret_idle[i] = 0;
    GdkRectangle r;
    const int offset = caret_extents(w, &r);
    printf("caret %s %d %d %d %d %d %" G_GINT64_FORMAT "\n", gtk_widget_get_name(w), offset, r.x,
           r.y, r.width, r.height, caret_since[i]);
    fflush(stdout);
    return G_SOURCE_REMOVE;
}

static void caret_moved(GtkWidget* w) {
    if (!report || !placed) return;
    const int i = w == notes;
    if (caret_idle[i]) return;
    caret_since[i] = g_get_monotonic_time();
    caret_idle[i] = g_idle_add_full(G_PRIORITY_HIGH_IDLE + 30, report_caret, w, NULL);
}

static void on_entry_notify(GObject* o, GParamSpec* p, gpointer data) {
    (void)o, (void)p, (void)data;
    caret_moved(entry);
}

static void on_mark_set(GtkTextBuffer* b, GtkTextIter* at, GtkTextMark* mark, gpointer data) {
    (void)at, (void)data;
    if (mark == gtk_text_buffer_get_insert(b) || mark == gtk_text_buffer_get_selection_bound(b))
        caret_moved(notes);
}

/* START to END selected, the cursor at END; the widget gets focus first, since a text field
 * selects all of its text when it takes focus. */
static void set_selection(GtkWidget* w, int start, int end) {
    if (!gtk_widget_is_focus(w)) gtk_widget_grab_focus(w);
    if (w == entry) {
        gtk_editable_select_region(GTK_EDITABLE(entry), start, end);
    } else {
        GtkTextIter s, e;
        gtk_text_buffer_get_iter_at_offset(notes_buffer(), &s, start);
        gtk_text_buffer_get_iter_at_offset(notes_buffer(), &e, end);
        gtk_text_buffer_select_range(notes_buffer(), &e, &s);
    }
    caret_moved(w);
}

static int caret_walk_left;
static guint caret_walk_source;

static gboolean caret_walk(gpointer data) {
    (void)data;
    if (caret_walk_left-- == 0) {
        caret_walk_source = 0;
        printf("done\n");
        fflush(stdout);
        return G_SOURCE_REMOVE;
    }
    GtkTextIter at;
    gtk_text_buffer_get_iter_at_mark(notes_buffer(), &at,
                                     gtk_text_buffer_get_insert(notes_buffer()));
    /* The end of the text is a cursor place too; after it comes the start. */
    if (gtk_text_iter_is_end(&at))
        gtk_text_buffer_get_start_iter(notes_buffer(), &at);
    else
        gtk_text_iter_forward_char(&at);
    gtk_text_buffer_place_cursor(notes_buffer(), &at);
    return G_SOURCE_CONTINUE;
}

static void handle(const char *line) {
    if (g_str_has_prefix(line, "focus ")) {
        GtkWidget *w = g_hash_table_lookup(by_name, line + 6);
        if (w) gtk_widget_grab_focus(w);
        else g_printerr("no widget named '%s'\n", line + 6);
    } else if (strcmp(line, "next") == 0) {
        g_signal_emit_by_name(window, "move-focus", GTK_DIR_TAB_FORWARD);
    } else if (strcmp(line, "unfocus") == 0) {
        gtk_window_set_focus(GTK_WINDOW(window), NULL);
    } else if (g_str_has_prefix(line, "announce ")) {
        GtkWidget *w = g_hash_table_lookup(by_name, line + 9);
        if (!w) {
            g_printerr("no widget named '%s'\n", line + 9);
            return;
        }
        gtk_window_set_focus(GTK_WINDOW(window), NULL);
        atk_object_notify_state_change(gtk_widget_get_accessible(w), ATK_STATE_FOCUSED, TRUE);
        g_timeout_add(300, grab_later, w);
    } else if (strcmp(line, "grid") == 0) {
        add_grid();
    } else if (strcmp(line, "describe") == 0) {
        add_described();
    } else if (g_str_has_prefix(line, "tell ")) {
        GtkWidget *w = g_hash_table_lookup(by_name, line + 5);
        if (w) atk_object_notify_state_change(gtk_widget_get_accessible(w), ATK_STATE_FOCUSED, TRUE);
        else g_printerr("no widget named '%s'\n", line + 5);
    } else if (g_str_has_prefix(line, "gap ") || g_str_has_prefix(line, "close-gap ")) {
        const gboolean closing = line[0] == 'c';
        const char *args = strchr(line, ' ') + 1;
        int ms = 0, used = 0;
        GtkWidget *w = NULL;
        if (sscanf(args, "%d %n", &ms, &used) == 1 && ms >= 0)
            w = g_hash_table_lookup(by_name, args + used);
        GtkWidget *gone = gtk_window_get_focus(GTK_WINDOW(window));
        if (!w || (closing && (!gone || gone == w))) {
            g_printerr("bad gap '%s'\n", line);
            return;
        }
        gtk_window_set_focus(GTK_WINDOW(window), NULL);
        if (closing) {
            g_hash_table_remove(by_name, gtk_widget_get_name(gone));
            gtk_widget_destroy(gone);
        }
        g_timeout_add(ms, grab_later, w);
    } else if (strcmp(line, "menu") == 0) {
        static const char *const items[] = {"Open", "Save", "Close"};
        open_menu(items);
    } else if (strcmp(line, "popover") == 0) {
        open_popover();
    } else if (strcmp(line, "next-menu") == 0) {
        static const char *const items[] = {"Cut", "Copy", "Paste"};
        open_menu(items);
    } else if (g_str_has_prefix(line, "cycle ")) {
        int ms = 0, count = 0;
        if (sscanf(line + 6, "%d %d", &ms, &count) == 2 && ms > 0 && count >= 0)
            start_cycle(ms, count);
    } else if (g_str_has_prefix(line, "move ")) {
        int x = 0, y = 0;
        if (sscanf(line + 5, "%d %d", &x, &y) == 2) gtk_window_move(GTK_WINDOW(window), x, y);
    } else if (g_str_has_prefix(line, "text ") || strcmp(line, "text") == 0) {
        gtk_entry_set_text(GTK_ENTRY(entry), line[4] ? line + 5 : "");
    } else if (g_str_has_prefix(line, "notes ")) {
        gchar* text = g_strcompress(line + 6);
        gtk_text_buffer_set_text(notes_buffer(), text, -1);
        g_free(text);
    } else if (g_str_has_prefix(line, "caret ") || g_str_has_prefix(line, "select ")) {
        const gboolean range = line[0] == 's';
        const char* args = strchr(line, ' ') + 1;
        /* The name has a space: the numbers close the line. */
        GtkWidget* w = g_str_has_prefix(args, "Name field ") ? entry : notes;
        const char* field = w == entry ? "Name field" : "Notes";
        const char* numbers = args + strlen(field);
        int start = 0, end = 0;
        if (!g_str_has_prefix(args, field) || (range ? sscanf(numbers, "%d %d", &start, &end) != 2
                                                     : sscanf(numbers, "%d", &start) != 1)) {
            g_printerr("bad cursor command '%s'\n", line);
            return;
        }
        set_selection(w, start, range ? end : start);
    } else if (g_str_has_prefix(line, "caret-cycle ")) {
        int ms = 0, count = 0;
        if (sscanf(line + 12, "%d %d", &ms, &count) != 2 || ms <= 0 || count < 0) return;
        if (caret_walk_source) g_source_remove(caret_walk_source);
        caret_walk_left = count;
        if (!gtk_widget_is_focus(notes)) gtk_widget_grab_focus(notes);
        caret_walk_source = g_timeout_add(ms, caret_walk, NULL);
    } else if (strcmp(line, "sync") == 0) {
        g_idle_add_full(G_PRIORITY_LOW, synced, NULL, NULL);
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

static gboolean announce(GtkWidget *w, GdkEvent *ev, gpointer data) {
    (void)w; (void)ev; (void)data;
    static gboolean said = FALSE;
    if (!said) {
        said = TRUE;
        placed = TRUE;
        report_focus("at");
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
        if (strcmp(argv[i], "--report") == 0) report = TRUE;
    }
    g_set_prgname("orv-gtk-testapp");
    gtk_init(&argc, &argv);
    by_name = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, NULL);

    window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), "Ocuvane Test");
    gtk_window_set_default_size(GTK_WINDOW(window), 420, 460);
    gtk_window_move(GTK_WINDOW(window), 60, 40);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);

    GtkWidget *box = main_box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
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
    GtkWidget *radio_a = gtk_radio_button_new_with_label(NULL, "Radio A");
    name_widget(radio_a, "Radio A");
    GtkWidget *radio_b =
        gtk_radio_button_new_with_label_from_widget(GTK_RADIO_BUTTON(radio_a), "Radio B");
    name_widget(radio_b, "Radio B");

    GtkWidget *list = gtk_list_box_new();
    name_widget(list, "Items");
    for (int i = 1; i <= 3; i++) {
        char label[32];
        snprintf(label, sizeof label, "Row %d", i);
        GtkWidget *row = gtk_list_box_row_new();
        gtk_container_add(GTK_CONTAINER(row), gtk_label_new(label));
        gtk_container_add(GTK_CONTAINER(list), row);
        /* The rows' accessible text is their label; only the widget takes the name. */
        gtk_widget_set_name(row, label);
        g_hash_table_insert(by_name, g_strdup(label), row);
    }
    GtkWidget *area = notes = gtk_text_view_new();
    name_widget(area, "Notes");
    gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(area)), "one\ntwo", -1);
    g_signal_connect(notes_buffer(), "mark-set", G_CALLBACK(on_mark_set), NULL);
    g_signal_connect(entry, "notify::cursor-position", G_CALLBACK(on_entry_notify), NULL);
    g_signal_connect(entry, "notify::selection-bound", G_CALLBACK(on_entry_notify), NULL);
    GtkWidget *scroll = gtk_scrolled_window_new(NULL, NULL);
    gtk_widget_set_size_request(scroll, -1, 80);
    gtk_container_add(GTK_CONTAINER(scroll), area);

    gtk_box_pack_start(GTK_BOX(box), first, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), second, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), entry, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), password, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), check, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), radio_a, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), radio_b, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), list, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), scroll, TRUE, TRUE, 0);

    g_signal_connect(window, "map-event", G_CALLBACK(announce), NULL);
    g_signal_connect_after(window, "set-focus", G_CALLBACK(on_set_focus), NULL);
    g_signal_connect(window, "configure-event", G_CALLBACK(on_configure), NULL);
    if (use_stdin) {
        GIOChannel *in = g_io_channel_unix_new(0);
        g_io_add_watch(in, G_IO_IN | G_IO_HUP | G_IO_ERR, on_stdin, NULL);
    }

    gtk_widget_show_all(window);
    gtk_widget_grab_focus(first);
    if (cycle_ms > 0) start_cycle(cycle_ms, -1);
    GdkRectangle primary = {0, 0, 0, 0};
    GdkDisplay *display = gdk_display_get_default();
    GdkMonitor *monitor = gdk_display_get_primary_monitor(display);
    if (!monitor) monitor = gdk_display_get_monitor(display, 0);
    if (monitor) gdk_monitor_get_geometry(monitor, &primary);
    printf("screen %d %d %d %d\n", primary.x, primary.y, primary.width, primary.height);
    printf("xid %lu\n", (unsigned long)GDK_WINDOW_XID(gtk_widget_get_window(window)));
    fflush(stdout);
    gtk_main();
    return 0;
}
