#include "model/SquaredDistance.h"

#include <cmath>
#include <limits>

double least_square_reaching(double eps) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  if (!(eps > 0.0)) return -kInf;
  double square = eps * eps;
  while (square > 0.0 && std::sqrt(std::nextafter(square, 0.0)) >= eps) square = std::nextafter(square, 0.0);
  while (!(std::sqrt(square) >= eps)) square = std::nextafter(square, kInf);
  return square;
}
