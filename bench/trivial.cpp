// The least that a Qt program does: it starts, prints a line and waits for the end of its
// standard input. Linked like a program that uses the settings.

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    std::puts("0");
    std::fflush(stdout);
    while (std::getchar() != EOF) { }
}
