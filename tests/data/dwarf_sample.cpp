// Compiled by the DWARF tests for big- and little-endian 32-bit PowerPC at
// every DWARF version: templates, classes with virtual functions, nested
// scopes and namespaces.
namespace geometry {
template <class T, int N>
struct Vec {
    T v[N];
    T dot(const Vec& o) const {
        T s = T();
        for (int i = 0; i < N; ++i) s += v[i] * o.v[i];
        return s;
    }
};

class Shape {
public:
    explicit Shape(int sides) : sides_(sides) {}
    virtual ~Shape() {}
    virtual double area() const = 0;
    int sides() const { return sides_; }

private:
    int sides_;
};

class Square : public Shape {
public:
    explicit Square(double side) : Shape(4), side_(side) {}
    double area() const override { return side_ * side_; }

private:
    double side_;
};
}  // namespace geometry

double total(const geometry::Shape* const* shapes, int n) {
    geometry::Vec<double, 3> a = {{1, 2, 3}}, b = {{4, 5, 6}};
    double sum = a.dot(b);
    for (int i = 0; i < n; ++i) {
        const double x = shapes[i]->area();
        { sum += x * shapes[i]->sides(); }
    }
    geometry::Square sq(2.0);
    return sum + sq.area() + geometry::Vec<int, 2>{{7, 8}}.dot({{1, 1}});
}
