// Serving the main queue from a GLib main loop: g_unix_fd_add() watches the queue's descriptor.
//   velmor-example-glib [SECONDS]    (0 or nothing: until interrupted)

#include <glib-unix.h>
#include <glib.h>

#include <cstdlib>

#include "ExampleListener.h"

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
    if (!exampleStart("Velmor GLib example"))
        return 1;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(
        VelmorMainQueue::mainQueue().fileDescriptor(), G_IO_IN,
        [](gint, GIOCondition, gpointer) -> gboolean {
            VelmorMainQueue::mainQueue().runPending();
            return G_SOURCE_CONTINUE;
        },
        nullptr);
    if (seconds > 0)
        g_timeout_add_seconds(
            guint(seconds),
            [](gpointer data) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(data));
                return G_SOURCE_REMOVE;
            },
            loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    VelmorManager::sharedManager()->flushManager();
    return 0;
}
