// Writes a one-record file through the installed library and checks its header.
#include <cstdio>
#include <fstream>
#include <string>

#include <luAnaf/luAnaf.h>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  std::string path = argv[1];
  std::wstring wpath(path.begin(), path.end());
  {
    LuAfxsCreateLink link(wpath.c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1.0;
    link.setHeader(header);
    if (!link.create(false)) return 1;
    LuAfxsCreateData data(link, 0, 1);
    const double points[2][3] = {{0, 0, 0}, {1, 0, 0}};
    data.setPoints(points, 2);
    if (!data.flush()) return 1;
    link.release();
  }
  std::ifstream in(path);
  std::string first;
  in >> first;
  std::printf("%s\n", first.c_str());
  return first == "Lumoravel_XS_COP" ? 0 : 1;
}
