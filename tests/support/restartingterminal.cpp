#include "restartingterminal.h"

#include "console.h"
#include "localfiles.h"

RestartingTerminal::RestartingTerminal(const char *options)
    : SimulatedTerminal(words(options))
{
    files::store(local(), "123456789");
}

Tool RestartingTerminal::start(const char *kind) const
{
    return Tool(argumentsOn(port(), "-w -a -f") + QStringList{QString::fromLatin1(kind), local()});
}

QByteArray RestartingTerminal::applying(const char *kind) const
{
    return console::identification(port()) + console::writing(local(), kind) + console::progress(9) + console::written()
        + console::applying(kind);
}

QByteArray RestartingTerminal::applied(const char *kind) const
{
    return applying(kind) + console::completed() + console::waiting(port());
}

Run RestartingTerminal::restarts(const char *kind) const
{
    return exits(0, applied(kind) + console::opened(port()));
}
