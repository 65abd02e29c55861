// quillbox-render-icon: renders the program's SVG icon into PNG files of the
// sizes desktops look for (run by the build; not installed).
//   quillbox-render-icon <icon.svg> <out folder> <size>...
// writes <out folder>/<size>x<size>/apps/quillbox.png for each size.
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  // No display is needed to paint into an image.
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  if (argc < 4) {
    std::fprintf(stderr, "usage: quillbox-render-icon <icon.svg> <out folder> <size>...\n");
    return 2;
  }
  QSvgRenderer renderer(QString::fromLocal8Bit(argv[1]));
  if (!renderer.isValid()) {
    std::fprintf(stderr, "quillbox-render-icon: cannot read %s\n", argv[1]);
    return 1;
  }
  for (int i = 3; i < argc; ++i) {
    const int size = std::atoi(argv[i]);
    if (size <= 0 || size > 1024) {
      std::fprintf(stderr, "quillbox-render-icon: bad size %s\n", argv[i]);
      return 2;
    }
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
    painter.end();
    const QString folder = QString("%1/%2x%2/apps").arg(QString::fromLocal8Bit(argv[2])).arg(size);
    if (!QDir().mkpath(folder) || !image.save(folder + "/quillbox.png", "PNG")) {
      std::fprintf(stderr, "quillbox-render-icon: cannot write %s\n", qPrintable(folder));
      return 1;
    }
  }
  return 0;
}
