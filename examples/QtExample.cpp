// Serving the main queue from a Qt event loop: a QSocketNotifier on the queue's descriptor.
//   velmor-example-qt [SECONDS]    (0 or nothing: until interrupted)

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include "ExampleListener.h"

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
    if (!exampleStart("Velmor Qt example"))
        return 1;
    QSocketNotifier notifier(VelmorMainQueue::mainQueue().fileDescriptor(), QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, [] { VelmorMainQueue::mainQueue().runPending(); });
    if (seconds > 0)
        QTimer::singleShot(seconds * 1000, &application, &QCoreApplication::quit);
    const int status = application.exec();
    VelmorManager::sharedManager()->flushManager();
    return status;
}
