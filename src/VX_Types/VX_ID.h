#ifndef VX_ID_H
#define VX_ID_H

#include "VX_Vec.h"

// A change stamp. A consumer that caches something derived from an object keeps
// the stamp it saw and recomputes when GetID() differs. Compared for equality only;
// it wraps at 2^32.
class VX_EXPORT VX_ID {
public:
    VX_ID() : id(0) {}
    explicit VX_ID(unsigned int v) : id(v) {}
    VX_ID(VX_ID const& o) : id(o.id) {}
    VX_ID& operator=(VX_ID const& o) { id = o.id; return *this; }
    virtual ~VX_ID() {}

    virtual unsigned int GetID() { return id; }
    virtual void SetID(unsigned int v) { id = v; }
    virtual void Invalidate() { ++id; }

    void ResetID() { id = 0; }
    // Copies the other object's stamp through the two virtual calls.
    void SetID(VX_ID* o) { SetID(o->GetID()); }

protected:
    unsigned int id;
};

class VX_EXPORT VX_IDInt : public VX_ID {
public:
    VX_IDInt() : value(0) {}
    explicit VX_IDInt(int v) : value(v) {}
    VX_IDInt(VX_IDInt const& o) = default;
    // Copies stamp and value without invalidating.
    VX_IDInt& operator=(VX_IDInt const& o) = default;
    // Invalidates only when the value changes.
    VX_IDInt& operator=(int v)
    {
        if (v != value) Invalidate();
        value = v;
        return *this;
    }
    operator int() const { return value; }

    int value;
};

class VX_EXPORT VX_IDFloat : public VX_ID {
public:
    // Precision 2^-23; the value has no meaning until assigned.
    VX_IDFloat() : value(0), precision(1.0f / 8388608.0f) {}
    VX_IDFloat(VX_IDFloat const& o) = default;
    VX_IDFloat& operator=(VX_IDFloat const& o) = default;
    // Invalidates only when the change exceeds the precision; stores the value in any case.
    VX_IDFloat& operator=(float v);
    void SetPrecision(float p) { precision = p; }
    operator float() const { return value; }

    float value;
    float precision;
};

class VX_EXPORT VX_IDVec : public VX_ID {
public:
    VX_IDVec() : vec() {}
    VX_IDVec(float x, float y, float z, float w) : vec(x, y, z, w) {}
    explicit VX_IDVec(float const* v) : vec(v) {}
    VX_IDVec(VX_IDVec const& o) = default;
    // Copies the value, keeps the own stamp and invalidates unconditionally.
    VX_IDVec& operator=(VX_IDVec const& o)
    {
        vec = o.vec;
        Invalidate();
        return *this;
    }
    VX_IDVec& operator=(VX_3Vec const& v)
    {
        vec = v;
        Invalidate();
        return *this;
    }
    VX_3Vec Vec() const { return vec; }

    VX_3Vec vec;
};

#endif
