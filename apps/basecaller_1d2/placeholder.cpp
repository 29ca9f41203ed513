// Keeps the app library non-empty until the parameter set lands.
namespace Marlo {
int basecaller1d2Placeholder() { return 0; }
}
