// The QImage drawing surface. Text uses the application's default sans
// serif font at the asked pixel size.
#include "ui/qt/qimage_surface.h"

#include <QFont>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPen>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

QColor Color_Of(uint32_t rgb) {
  return QColor((rgb >> 16) & 0xff, (rgb >> 8) & 0xff, rgb & 0xff);
}

} // namespace

void Ensure_Runtime_Folder() {
  // A batch session has no runtime folder; Qt would make this one and say so
  // on every run.
  if (std::getenv("XDG_RUNTIME_DIR"))
    return;
  const std::string dir = "/tmp/runtime-" + std::to_string(getuid());
  struct stat st;
  if (stat(dir.c_str(), &st) == 0 || mkdir(dir.c_str(), 0700) == 0)
    setenv("XDG_RUNTIME_DIR", dir.c_str(), 0);
}

int Ensure_Gui_Application() {
  if (QGuiApplication::instance())
    return 0;
  if (!std::getenv("QT_QPA_PLATFORM") && !std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  Ensure_Runtime_Folder();
  static int argc = 1;
  static char name[] = "ohmvol3d";
  static char *argv[] = {name, nullptr};
  static QGuiApplication *app = new QGuiApplication(argc, argv);
  return app ? 0 : 1;
}

struct Image_Target::Impl {
  QImage image;
  std::unique_ptr<QPainter> painter;
  Draw_Surface surface;
  QFont font;

  QPainter &P() { return *painter; }
  void Font_Size(int size) {
    if (font.pixelSize() != size) {
      font.setPixelSize(size > 0 ? size : 12);
      painter->setFont(font);
    }
  }
};

Image_Target::Image_Target() : impl(new Impl) {}
Image_Target::~Image_Target() {
  if (impl->painter)
    impl->painter->end();
}

Draw_Surface *Image_Target::Begin(int width, int height) {
  if (width < 1 || height < 1 || Ensure_Gui_Application())
    return nullptr;
  Impl &m = *impl;
  if (m.painter)
    m.painter->end();
  m.painter.reset();
  m.image = QImage(width, height, QImage::Format_RGB32);
  if (m.image.isNull())
    return nullptr;
  m.image.fill(Qt::white);
  m.painter = std::make_unique<QPainter>(&m.image);
  m.font = QFont(QStringLiteral("DejaVu Sans"));
  m.font.setStyleHint(QFont::SansSerif);
  m.font.setPixelSize(12);
  m.painter->setFont(m.font);
  Draw_Surface &s = m.surface;
  s.user = &m;
  s.width = width;
  s.height = height;
  s.fill_rect = [](void *u, int x, int y, int w, int h, uint32_t rgb) {
    static_cast<Impl *>(u)->P().fillRect(x, y, w, h, Color_Of(rgb));
  };
  s.line = [](void *u, int x0, int y0, int x1, int y1, uint32_t rgb, int pen) {
    QPainter &p = static_cast<Impl *>(u)->P();
    p.setPen(QPen(Color_Of(rgb), pen));
    p.drawLine(x0, y0, x1, y1);
  };
  s.text = [](void *u, int x, int y, const char *t, uint32_t rgb, int align, int size) {
    Impl &m = *static_cast<Impl *>(u);
    m.Font_Size(size);
    const QString q = QString::fromUtf8(t);
    const int w = QFontMetrics(m.font).horizontalAdvance(q);
    const int x0 = align == TA_CENTRE ? x - w / 2 : align == TA_RIGHT ? x - w : x;
    m.P().setPen(Color_Of(rgb));
    m.P().drawText(x0, y, q);
  };
  s.text_width = [](void *u, const char *t, int size) {
    Impl &m = *static_cast<Impl *>(u);
    m.Font_Size(size);
    return QFontMetrics(m.font).horizontalAdvance(QString::fromUtf8(t));
  };
  s.pixels = [](void *u, int x, int y, int w, int h, const uint32_t *rgb) {
    Impl &m = *static_cast<Impl *>(u);
    const QImage block(reinterpret_cast<const uchar *>(rgb), w, h, 4 * w, QImage::Format_RGB32);
    m.P().drawImage(x, y, block);
  };
  return &s;
}

int Image_Target::Save(const char *path) {
  Impl &m = *impl;
  if (m.image.isNull())
    return 1;
  if (m.painter) {
    m.painter->end();
    m.painter.reset();
  }
  // A name ending in ".bmp" is written as a bitmap, any other as PNG.
  const QString name = QString::fromUtf8(path);
  const char *format = name.endsWith(".bmp", Qt::CaseInsensitive) ? "BMP" : "PNG";
  return m.image.save(name, format) ? 0 : 1;
}

const QImage *Image_Target::Image() const {
  return impl->image.isNull() ? nullptr : &impl->image;
}

uint32_t Image_Target::Pixel(int x, int y) const {
  const QImage &img = impl->image;
  if (x < 0 || y < 0 || x >= img.width() || y >= img.height())
    return 0;
  return img.pixel(x, y) & 0xffffffu;
}

void Install_Image_Front_End(Front_End &fe, Image_Target &target) {
  fe.image_user = &target;
  fe.image_surface = [](void *u, int width, int height) {
    return static_cast<Image_Target *>(u)->Begin(width, height);
  };
  fe.image_save = [](void *u, const char *path) {
    return static_cast<Image_Target *>(u)->Save(path);
  };
}
